#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <type_traits>

#include "agent/store/store.h"

// How the source files of the store reach the database.

namespace qxpagent {

/// Runs `work` in one transaction, which is on the disk when this returns.
template <typename Work>
auto Store::Write(const Work& work) {
    const std::lock_guard lock(write_mutex_);
    try {
        SQLite::Transaction transaction(*writer_, SQLite::TransactionBehavior::IMMEDIATE);
        if constexpr (std::is_void_v<decltype(work(*writer_))>) {
            work(*writer_);
            transaction.commit();
            NoteChange();
        } else {
            auto result = work(*writer_);
            transaction.commit();
            NoteChange();
            return result;
        }
    } catch (const SQLite::Exception& error) {
        Fail(error, *writer_, true);
    }
}

/// Runs `work` on one state of the database.
template <typename Work>
auto Store::Read(const Work& work) {
    const std::lock_guard lock(read_mutex_);
    try {
        const SQLite::Transaction snapshot(*reader_);
        return work(*reader_);
    } catch (const SQLite::Exception& error) {
        Fail(error, *reader_, false);
    }
}

/// Asks `find` until it finds something, the time is over, or waiting has been ended.
template <typename Find>
auto Store::WaitFor(std::chrono::milliseconds wait, const Find& find) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        const uint64_t known = Changes();
        auto found = find();
        if (!found.empty() || !AwaitChange(known, deadline)) {
            return found;
        }
    }
}

}  // namespace qxpagent
