// HTTP parsing and serialising around Beast's parser and serializer, without its sockets. Owned by
// a connection, called on its thread only; no locks.
#include "examples/common/http_session.h"

#include <algorithm>

#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/http/serializer.hpp>

namespace http = boost::beast::http;

namespace
{

// A computed body is made in pieces of this size: one piece per run of the connection.
constexpr u32 kBulkChunk = 16U * 1024U;

u32 StatusOf(const boost::beast::error_code& error)
{
    const bool tooLarge = error == http::error::header_limit || error == http::error::body_limit ||
                          error == http::error::buffer_overflow;
    return tooLarge ? 413 : 400;
}

} // namespace

void HttpSession::Receive(std::string_view bytes)
{
    input_.append(bytes);
    phase_ = SessionPhase::Buffered;
}

void HttpSession::EndInput()
{
    inputEnded_ = true;
    phase_ = SessionPhase::Ended;
}

void HttpSession::Parse()
{
    if (phase_ != SessionPhase::Buffered) {
        return;
    }
    phase_ = SessionPhase::Receiving;
    if (!parser_) {
        parser_.emplace();
        parser_->header_limit(kHeaderLimit);
        parser_->body_limit(kBodyLimit);
        parser_->eager(true);
    }
    FeedParser();
    if (phase_ != SessionPhase::Receiving) {
        return; // refused
    }
    if (parser_->is_done()) {
        CheckRequest();
    } else if (WantsContinue()) {
        SendInterim();
    }
}

// Bounded: every pass consumes input or is the last.
void HttpSession::FeedParser()
{
    while (!input_.empty() && !parser_->is_done()) {
        boost::beast::error_code error;
        const size_t used = parser_->put(boost::asio::buffer(input_), error);
        input_.erase(0, used);
        if (error && error != http::error::need_more) {
            Refuse(StatusOf(error));
            return;
        }
        if (used == 0) {
            return;
        }
    }
}

void HttpSession::CheckRequest()
{
    const auto& request = parser_->get();
    keepAlive_ = request.keep_alive();
    phase_ = SessionPhase::Answering;
    const http::verb method = request.method();
    if (request.version() >= 11 && request.find(http::field::host) == request.end()) {
        Refuse(400);
    } else if (method != http::verb::get && method != http::verb::head) {
        refusal_ = 405; // a whole request: the conversation goes on
    }
}

bool HttpSession::WantsContinue()
{
    return parser_->is_header_done() && !continueSent_ && parser_->get().version() >= 11 &&
           boost::beast::iequals(parser_->get()[http::field::expect], "100-continue");
}

void HttpSession::SendInterim()
{
    continueSent_ = true;
    interim_ = true;
    output_ = "HTTP/1.1 100 Continue\r\n\r\n";
    phase_ = SessionPhase::Sending;
}

std::string_view HttpSession::Target() const
{
    const auto target = parser_->get().target();
    return {target.data(), target.size()};
}

void HttpSession::Refuse(u32 status)
{
    refusal_ = status;
    keepAlive_ = false;
    phase_ = SessionPhase::Answering;
}

void HttpSession::Answer(const Page& page)
{
    BuildHead(page);
    if (parser_->get().method() != http::verb::head) {
        output_ += page.text;
        bulkLeft_ = page.bulkSize;
        bulk_ = BulkBody();
    }
    phase_ = SessionPhase::Sending;
}

// The body is not handed to the serializer: a computed one is made piece by piece, and a HEAD
// request gets the length without the body.
void HttpSession::BuildHead(const Page& page)
{
    const u32 version = parser_->is_header_done() ? parser_->get().version() : 11;
    http::response<http::empty_body> head(static_cast<http::status>(page.status), version);
    head.set(http::field::content_type, page.contentType);
    head.content_length(page.text.size() + page.bulkSize);
    head.keep_alive(keepAlive_);
    if (page.status == 405) {
        head.set(http::field::allow, "GET, HEAD");
    }
    http::response_serializer<http::empty_body> serializer(head);
    boost::beast::error_code error;
    while (!error && !serializer.is_done()) {
        serializer.next(error, [&](boost::beast::error_code&, const auto& buffers) {
            size_t size = 0;
            for (const boost::asio::const_buffer part : boost::beast::buffers_range_ref(buffers)) {
                output_.append(static_cast<const char*>(part.data()), part.size());
                size += part.size();
            }
            serializer.consume(size);
        });
    }
}

std::string_view HttpSession::Output()
{
    if (sent_ == output_.size()) {
        const u32 size = std::min(bulkLeft_, kBulkChunk);
        output_.clear();
        sent_ = 0;
        bulk_.Append(output_, size);
        bulkLeft_ -= size;
    }
    return std::string_view(output_).substr(sent_);
}

void HttpSession::Sent(size_t size)
{
    sent_ += size;
    if (sent_ < output_.size() || bulkLeft_ != 0) {
        return;
    }
    output_.clear();
    sent_ = 0;
    if (interim_) {
        interim_ = false;
        phase_ = SessionPhase::Receiving;
        return;
    }
    Finish();
}

void HttpSession::Finish()
{
    ++answered_;
    parser_.reset();
    refusal_ = 0;
    continueSent_ = false;
    if (!keepAlive_) {
        phase_ = SessionPhase::Ended;
        return;
    }
    phase_ = input_.empty() ? SessionPhase::Receiving : SessionPhase::Buffered;
}
