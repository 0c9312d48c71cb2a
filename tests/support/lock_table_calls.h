// The calls of lock_table_model.h made on a real table, with every output kept for comparison, and
// calls with anything in them, for tests and for the fuzzer.
#pragma once

#include "support/lock_table_model.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

inline int codeOfCall(SharedFileLockTable *table, const TableCall &c, TableAnswer &a) {
    // clang-format off
    switch (c.kind) {
    case TableCall::Open:
        return OpenSharedFile(table, c.owner, c.handle, &c.key, c.mode, c.maxOpens,
                              c.name[0] != 0 ? c.name : nullptr, &a.combined);
    case TableCall::Close: return CloseSharedFile(table, c.owner, c.handle, &c.key);
    case TableCall::IsOpen: return SharedFileIsOpen(table, &c.key);
    case TableCall::Info:
        return SharedFileInfo(table, &c.key, &a.combined, &a.count, a.name.data(), c.nameSize);
    case TableCall::Lock:
        return LockSharedFileRange(table, c.owner, c.handle, &c.key, c.offset, c.length, c.mode);
    case TableCall::Unlock:
        return UnlockSharedFileRange(table, c.owner, c.handle, &c.key, c.offset, c.length);
    case TableCall::Test:
        return TestSharedFileRange(table, c.owner, c.handle, &c.key, c.offset, &a.length, c.mode);
    case TableCall::Holders:
        return GetOplockHolders(table, &c.key, a.pids.data(), c.maxOpens, &a.count);
    case TableCall::SetMode: return SetSharedFileMode(table, c.owner, c.handle, &c.key, c.mode);
    case TableCall::Clean: return CleanSharedFileLockTable(table, static_cast<int32_t>(c.mode));
    }
    // clang-format on
    std::abort();
}

inline TableAnswer callTable(SharedFileLockTable *table, const TableCall &call) {
    TableAnswer answer = blankAnswer(call);
    answer.code = codeOfCall(table, call, answer);
    return answer;
}

// Every bit that means something turns up, the refusing ones more seldom than the others. below(n)
// is a number from 0 to n - 1.
template <class Below>
uint32_t anyOpenMode(Below below) {
    uint32_t mode = 0;
    for (uint32_t bit : {0x1u, 0x2u, 0x8u})
        if (below(3) == 0) mode |= bit;
    for (uint32_t bit : {0x10u, 0x20u, 0x40u, 0x100u, 0x200u, 0x400u, 0x800u, 0x4000u, 0x8000u,
                         0x10000u, 0x100000u})
        if (below(12) == 0) mode |= bit;
    for (uint32_t bit : {0x20000000u, 0x40000000u})
        if (below(4) == 0) mode |= bit;
    return mode;
}

// pid: whose records a Clean removes.
template <class Below>
TableCall anyTableCall(Below below, uint32_t pid) {
    static constexpr TableCall::Kind kKinds[] = {
        TableCall::Open,   TableCall::Open,    TableCall::Open,   TableCall::Open,
        TableCall::Close,  TableCall::Close,   TableCall::Lock,   TableCall::Lock,
        TableCall::Lock,   TableCall::Lock,    TableCall::Unlock, TableCall::Unlock,
        TableCall::Test,   TableCall::Test,    TableCall::Unlock, TableCall::Info,
        TableCall::IsOpen, TableCall::SetMode, TableCall::Holders};
    TableCall call{};
    call.kind = below(400) == 0 ? TableCall::Clean : kKinds[below(std::size(kKinds))];
    call.owner = below(2);
    call.handle = below(2);
    const uint32_t file = below(12);  // keys that differ in one half of one word alone
    call.key = {file % 3 | uint64_t{file / 3 % 2} << 32, file / 6 * 16};
    call.offset = below(6) == 0 ? (below(2) == 0 ? below(2) : INT64_MAX - below(2)) : below(24);
    const int64_t room =
        call.offset == 0 ? INT64_MAX : INT64_MAX - call.offset + 1 - (call.offset == 1);
    call.length = below(12) == 0 ? -1 : std::min<int64_t>(below(10), room);
    call.mode = below(4) | (call.kind == TableCall::Lock && below(4) == 0 ? 0x700u : 0);
    if (call.kind == TableCall::Open || call.kind == TableCall::SetMode)
        call.mode = anyOpenMode(below);
    if (call.kind == TableCall::Clean) call.mode = pid;
    call.maxOpens = call.kind == TableCall::Holders ? below(5) : below(4);
    call.nameSize = below(41);
    const size_t nameLength = below(2) * below(sizeof call.name);
    for (size_t i = 0; i < nameLength; ++i)
        call.name[i] = static_cast<char>('a' + below(26));
    return call;
}
