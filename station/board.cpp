#include "board.h"

#include <array>

namespace orbix::station {

std::string_view phase_name(Phase phase) {
    static constexpr std::array<std::string_view, 7> names = {"queued", "connect", "sync", "erase",
                                                              "write",  "verify",  "done"};
    return names.at(static_cast<std::size_t>(phase));
}

void Board::write(const std::string& port, const std::function<void(Row&)>& change) {
    const std::scoped_lock lock(mutex_);
    Row& row = rows_[port];
    row.port = port;
    change(row);
    row.version = ++version_;
    changed_.notify_all();
}

void Board::remove(const std::string& port) {
    const std::scoped_lock lock(mutex_);
    if (rows_.erase(port) == 0) {
        return;
    }
    ++version_;
    changed_.notify_all();
}

void Board::count(bool good) {
    const std::scoped_lock lock(mutex_);
    ++(good ? counters_.good : counters_.bad);
    ++version_;
    changed_.notify_all();
}

Changes Board::changes_since(std::uint64_t version) const {
    const std::scoped_lock lock(mutex_);
    return changes_since_locked(version);
}

Changes Board::wait_for_changes(std::uint64_t version, std::chrono::milliseconds at_most) const {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, at_most, [&] { return closed_ || version_ > version; });
    return changes_since_locked(version);
}

void Board::close() {
    const std::scoped_lock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

Changes Board::changes_since_locked(std::uint64_t version) const {
    Changes changes{
        .version = version_, .counters = counters_, .rows = {}, .ports = {}, .closed = closed_};
    for (const auto& [port, row] : rows_) {
        changes.ports.push_back(port);
        if (row.version > version) {
            changes.rows.push_back(row);
        }
    }
    return changes;
}

}  // namespace orbix::station
