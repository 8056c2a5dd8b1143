// One HTTP/1.1 conversation without a socket: bytes go in, requests are answered one at a time and
// in order, bytes come out. Owned by a connection, used on its thread.
//
// The phases of a session:
//
//   Receiving  nothing can be done before more input arrives
//   Buffered   input is at hand that has not been parsed
//   Answering  a request (or its refusal) is complete, the response not yet begun
//   Sending    response bytes wait to be sent
//   Ended      the last response is out, the connection is to be closed
#ifndef EXAMPLES_HTTP_SESSION_H
#define EXAMPLES_HTTP_SESSION_H

#include <optional>
#include <string>
#include <string_view>

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include "common/xel_int.h"
#include "examples/common/page.h"

constexpr u32 kHeaderLimit = 8U * 1024U;
constexpr u64 kBodyLimit = 64UL * 1024UL;

enum class SessionPhase : u8 { Receiving, Buffered, Answering, Sending, Ended };

class HttpSession
{
public:
    SessionPhase Phase() const { return phase_; }
    // Part of a request has arrived and the rest has not.
    bool IsMidRequest() const { return parser_.has_value(); }
    bool InputEnded() const { return inputEnded_; }
    // Responses that have been sent as a whole.
    u64 Answered() const { return answered_; }

    // In phase Receiving only.
    void Receive(std::string_view bytes);
    // The client will send no more; what has arrived whole is still answered.
    void EndInput();

    // Buffered: looks for one whole request and goes to Answering, Receiving, Sending (an interim
    // answer) or Ended. Other phases: nothing.
    void Parse();
    // Answering: the status of a request that the session itself turns down, 0 for any other.
    u32 Refusal() const { return refusal_; }
    // Answering, not refused: the target, good until Answer.
    std::string_view Target() const;
    // Answering: builds the response and goes to Sending.
    void Answer(const Page& page);
    // Turns what has arrived of a request down; goes to Answering and ends the conversation after.
    void Refuse(u32 status);

    // Sending: bytes to send now, never empty; good until Sent.
    std::string_view Output();
    // Sending: the first size bytes of Output are gone.
    void Sent(size_t size);

private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void FeedParser();
    void CheckRequest();
    bool WantsContinue();
    void SendInterim();
    void BuildHead(const Page& page);
    void Finish();

    SessionPhase phase_ = SessionPhase::Receiving;
    std::string input_;            // not yet parsed: a header at most, plus one read
    std::optional<Parser> parser_; // from the first byte of a request to its response's last
    u32 refusal_ = 0;              // status of the refusal that is to be sent, 0: none
    bool keepAlive_ = true;
    bool inputEnded_ = false;
    bool continueSent_ = false;
    u64 answered_ = 0;
    bool interim_ = false; // the output is an interim answer, the request is still arriving
    std::string output_;
    size_t sent_ = 0; // bytes of output_ that are gone
    BulkBody bulk_;
    u32 bulkLeft_ = 0; // bytes of a computed body that are not in output_ yet
};

#endif // EXAMPLES_HTTP_SESSION_H
