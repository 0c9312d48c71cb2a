// The calls of lock_table_model.h made on a real table, with every output kept for comparison.
#pragma once

#include "support/lock_table_model.h"

inline TableAnswer callTable(SharedFileLockTable *table, const TableCall &c) {
    TableAnswer a = blankAnswer();
    a.length = c.length;
    switch (c.kind) {
    case TableCall::Open:
        a.code = OpenSharedFile(table, c.owner, c.handle, &c.key, c.mode, c.maxOpens,
                                c.name[0] != 0 ? c.name : nullptr, &a.combined);
        break;
    case TableCall::Close:
        a.code = CloseSharedFile(table, c.owner, c.handle, &c.key);
        break;
    case TableCall::IsOpen:
        a.code = SharedFileIsOpen(table, &c.key);
        break;
    case TableCall::Info:
        a.code = SharedFileInfo(table, &c.key, &a.combined, &a.count, a.name, c.nameSize);
        break;
    case TableCall::Lock:
        a.code = LockSharedFileRange(table, c.owner, c.handle, &c.key, c.offset, c.length, c.mode);
        break;
    case TableCall::Unlock:
        a.code = UnlockSharedFileRange(table, c.owner, c.handle, &c.key, c.offset, c.length);
        break;
    case TableCall::Test:
        a.code = TestSharedFileRange(table, c.owner, c.handle, &c.key, c.offset, &a.length, c.mode);
        break;
    case TableCall::Holders:
        a.code = GetOplockHolders(table, &c.key, a.pids, c.maxOpens, &a.count);
        break;
    case TableCall::SetMode:
        a.code = SetSharedFileMode(table, c.owner, c.handle, &c.key, c.mode);
        break;
    case TableCall::Clean:
        a.code = CleanSharedFileLockTable(table, static_cast<int32_t>(c.mode));
        break;
    }
    return a;
}
