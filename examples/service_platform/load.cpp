// Four clients: two that send bulk requests, one whose requests time out, one administrator. Each
// has a tally of its own, merged when its thread has been joined.
#include "examples/service_platform/load.h"

#include <array>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "examples/service_platform/http_client.h"

namespace
{

constexpr u32 kBulkClients = 2;
constexpr u32 kBulkConnections = 24; // of each
constexpr u32 kSlowConnections = 4;
constexpr auto kAdminPause = std::chrono::milliseconds(4);
constexpr u64 kSessionTurnMs = 200; // a client takes another session so often

struct Plan {
    u32 port;
    Clock::time_point begin;
    Clock::time_point end;

    bool IsOver() const { return Clock::now() >= end; }
    // Sessions change with time, so that those of a while ago expire.
    u64 Turn() const
    {
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
        return static_cast<u64>(ms) / kSessionTurnMs;
    }
};

void CountAnswer(ClientTally& tally, u32 status, Clock::time_point asked)
{
    u64& count = status == 200   ? tally.answered
                 : status == 503 ? tally.refused
                 : status == 504 ? tally.timedOut
                                 : tally.failed;
    ++count;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - asked);
    tally.latency.Count(static_cast<u64>(us.count()));
}

// One request on each connection, then all the answers.
void AskRound(std::vector<HttpClient>& clients, const std::string& target, u64 firstSession,
              ClientTally& tally)
{
    std::vector<Clock::time_point> asked;
    u64 session = firstSession;
    for (HttpClient& client : clients) {
        client.Send(target + std::to_string(session++));
        asked.push_back(Clock::now());
        ++tally.asked;
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        CountAnswer(tally, clients[i].Receive(), asked[i]);
    }
}

// Rounds until the time is over. number: tells the sessions of one client from those of others.
void AskInRounds(const Plan& plan, u32 number, u32 connections, const std::string& target,
                 ClientTally& tally)
{
    std::vector<HttpClient> clients;
    for (u32 i = 0; i < connections; ++i) {
        clients.emplace_back(plan.port);
    }
    while (!plan.IsOver()) {
        AskRound(clients, target, plan.Turn() * 1000 + number * 100UL, tally);
    }
}

void Administer(const Plan& plan, ClientTally& tally)
{
    HttpClient client(plan.port);
    while (!plan.IsOver()) {
        const auto asked = Clock::now();
        client.Send("/admin/status");
        ++tally.asked;
        CountAnswer(tally, client.Receive(), asked);
        std::this_thread::sleep_for(kAdminPause);
    }
}

// A client that fails is over; its open requests have no answers then, which the account shows.
template <typename Client>
std::jthread StartClient(ClientTally& tally, Client client)
{
    return std::jthread([&tally, client] {
        try {
            client(tally);
        } catch (const std::exception&) {
            ++tally.failed;
        }
    });
}

} // namespace

void ClientTally::Merge(const ClientTally& other)
{
    asked += other.asked;
    answered += other.answered;
    refused += other.refused;
    timedOut += other.timedOut;
    failed += other.failed;
    latency.Merge(other.latency);
}

ClientTally LoadTally::Sum() const
{
    ClientTally sum = bulk;
    sum.Merge(slow);
    sum.Merge(admin);
    return sum;
}

LoadTally RunLoad(u32 port, Clock::duration time)
{
    const auto begin = Clock::now();
    const Plan plan = {port, begin, begin + time};
    LoadTally load;
    std::array<ClientTally, kBulkClients> bulk;
    {
        std::vector<std::jthread> threads;
        for (u32 i = 0; i < kBulkClients; ++i) {
            threads.push_back(StartClient(bulk.at(i), [plan, i](ClientTally& tally) {
                AskInRounds(plan, i, kBulkConnections, "/call/", tally);
            }));
        }
        threads.push_back(StartClient(load.slow, [plan](ClientTally& tally) {
            AskInRounds(plan, kBulkClients, kSlowConnections, "/slow/", tally);
        }));
        threads.push_back(
            StartClient(load.admin, [plan](ClientTally& tally) { Administer(plan, tally); }));
    }
    for (const ClientTally& tally : bulk) {
        load.bulk.Merge(tally);
    }
    return load;
}
