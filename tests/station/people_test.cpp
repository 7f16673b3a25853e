// What the station shows to people: the table in any size of terminal, and the plain lines.
#include "people.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace orbix::station {
namespace {

using system::TerminalSize;

Row row_of(const std::string& port, Phase phase, Cause cause = Cause::none) {
    Row row;
    row.port = port;
    row.model = "TR52G";
    row.phase = phase;
    row.cause = cause;
    row.attempt = 1;
    row.started = Clock::now();
    return row;
}

std::vector<std::string> table_of(const std::vector<Row>& rows, TerminalSize size,
                                  Counters counters = {}) {
    return table_lines(rows, counters, size, Clock::now(), false);
}

bool has_line(const std::vector<std::string>& lines, std::string_view text) {
    return std::any_of(lines.begin(), lines.end(), [text](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

TEST(Table, ShowsARowForEachPort) {
    Row writing = row_of("/dev/ttyUSB0", Phase::write);
    writing.percent = 50;
    writing.kbytes_per_second = 13.8;
    Row waiting = row_of("/dev/ttyUSB1", Phase::sync);
    waiting.waiting_for = "press reset";
    Row failed = row_of("/dev/ttyUSB2", Phase::done, Cause::refused);
    failed.message = "Erase Flash failed!";
    failed.seconds = 65;
    const auto lines = table_of({writing, waiting, failed, row_of("/dev/ttyUSB3", Phase::done)},
                                {.columns = 140, .lines = 24}, {.good = 1, .bad = 1});
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_TRUE(has_line(lines, "##########..........  50%   13.8   0:00"));
    EXPECT_TRUE(has_line(lines, "waiting: press reset"));
    EXPECT_TRUE(has_line(lines, "1:05 FAILED the module refused: Erase Flash failed!"));
    EXPECT_EQ(lines.back(), "1 good, 1 bad, 2 running, 0 queued");
}

TEST(Table, FitsEveryTerminal) {
    std::vector<Row> rows;
    for (int number = 10; number < 60; ++number) {
        Row row = row_of("/dev/serial/by-id/usb-adapter-" + std::to_string(number), Phase::write);
        row.message = std::string(300, 'm');
        row.waiting_for = "\xC3\xA9" + std::string(200, 'w');
        rows.push_back(row);
    }
    for (std::size_t columns = 1; columns < 200; columns += 7) {
        for (std::size_t height = 1; height < 70; height += 3) {
            const auto lines = table_of(rows, {.columns = columns, .lines = height});
            EXPECT_LT(lines.size(), std::max<std::size_t>(height, 4));
            for (const std::string& line : lines) {
                const auto letters = std::count_if(line.begin(), line.end(), [](char letter) {
                    return (static_cast<unsigned char>(letter) & 0xC0U) != 0x80;
                });
                EXPECT_LT(static_cast<std::size_t>(letters), std::max<std::size_t>(columns, 20));
            }
        }
    }
}

TEST(Table, ShowsTheFailedAndTheWaitingFirstWhenThereIsNoRoomForAll) {
    std::vector<Row> rows;
    for (int number = 10; number < 40; ++number) {
        const Phase phase = number < 20 ? Phase::done : number < 35 ? Phase::write : Phase::queued;
        rows.push_back(row_of("port" + std::to_string(number), phase));
    }
    rows[3].cause = Cause::no_sync;
    rows[17].waiting_for = "power up the module";
    const auto lines = table_of(rows, {.columns = 100, .lines = 10});
    EXPECT_TRUE(has_line(lines, "port13"));
    EXPECT_TRUE(has_line(lines, "port27"));
    EXPECT_FALSE(has_line(lines, "port12"));
    EXPECT_FALSE(has_line(lines, "port39"));
    EXPECT_TRUE(has_line(lines, "23 more not shown"));
}

/// What an action writes to a file.
template <typename Action>
std::string written_by(Action action) {
    std::FILE* const file = std::tmpfile();
    PlainLines lines(file);
    action(lines);
    std::rewind(file);
    std::string text(100'000, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file));
    std::fclose(file);
    return text;
}

TEST(PlainLines, EachTenthOfATransferIsToldOnce) {
    const std::string text = written_by([](PlainLines& lines) {
        Row row = row_of("COM6", Phase::write);
        lines.phase(row);
        for (int step = 0; step <= 1000; ++step) {
            row.percent = step / 10.0;
            lines.progress(row);
        }
    });
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11);
    EXPECT_TRUE(text.starts_with("COM6: write\nCOM6: write 10 %"));
    EXPECT_TRUE(text.ends_with("COM6: write 100 %, 0.0 KB/s\n"));
}

TEST(PlainLines, OutcomeIsTold) {
    Row good = row_of("COM6", Phase::done);
    good.seconds = 12.34;
    Row bad = row_of("COM7", Phase::done, Cause::no_sync);
    bad.message = "Sync failed!";
    EXPECT_EQ(written_by([&](PlainLines& lines) {
                  lines.result(good);
                  lines.result(bad);
              }),
              "COM6: good: flashed in 12.3 s\nCOM7: FAILED: the module did not answer: Sync "
              "failed!\n");
    EXPECT_EQ(summary_lines({.good = 1, .bad = 1}, {bad}),
              (std::vector<std::string>{"1 good, 1 bad",
                                        "  COM7: the module did not answer: Sync failed!"}));
}

TEST(PlainLines, ErrorLineBesideASuccessIsTold) {
    Row row = row_of("COM6", Phase::done);
    row.message = "Open & config the serial failed";
    EXPECT_EQ(outcome_in_words(row), "flashed in 0.0 s, but: Open & config the serial failed");
}

}  // namespace
}  // namespace orbix::station
