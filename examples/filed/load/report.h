// What happened, counted: by kind of request, with latencies, and by refusal code.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

enum Kind { kOpen, kClose, kRead, kWrite, kLock, kUnlock, kTest, kMode, kInfo, kHolders, kKinds };

class Report {
public:
    void answered(Kind kind, uint32_t microseconds, const std::string &refusal);  // "" = granted

    uint64_t requests() const { return requests_; }
    uint64_t refusals() const { return refusals_; }
    void print() const;

    uint64_t connects = 0;         // connections made
    uint64_t lost = 0;             // connections that the server ended or lost
    uint64_t refusedConnects = 0;  // attempts that failed: none should
    uint64_t badReplies = 0;       // replies that make no sense: none should
    uint64_t killsAsked = 0;

private:
    struct Row {
        uint64_t granted = 0;
        std::vector<uint32_t> microseconds;
    };
    std::array<Row, kKinds> rows_;
    std::map<std::string, uint64_t> codes_;
    uint64_t requests_ = 0, refusals_ = 0;
};
