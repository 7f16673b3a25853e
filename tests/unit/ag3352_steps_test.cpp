// The codes of the AG3352 upgrade's steps, which the driver turns into -1.
#include <gtest/gtest.h>

#include <functional>

#include "unit/bench.h"
#include "upgrade/ag3352.h"
#include "upgrade_frames.h"

namespace orbix::test {
namespace {

using namespace orbix::ag3352;
using sim::make_upgrade_frame;

const Bytes first_answer = hex("4D 3A FC AA");
const Bytes second_answer = hex("A0 5B FD 55");

/// What a module may say to a step: a good answer, one with a slave state, and one with a bad tail.
struct Answers {
    Bytes good;
    Bytes refusal;
    Bytes bad_tail;
};

Answers answers_of(const Bytes& good_payload) {
    Answers answers;
    answers.good = make_upgrade_frame(2, 0x02, good_payload);
    Bytes payload = good_payload;
    payload[3] = 0x05;
    answers.refusal = make_upgrade_frame(2, 0x02, payload);
    answers.bad_tail = answers.good;
    answers.bad_tail.back() = 0x54;
    return answers;
}

const Answers acknowledgements = answers_of(hex("02 00 00 00"));
const Answers versions = answers_of(hex("02 00 00 00 01 0A C8"));

int synchronise(const TalkingModule::Script& script) {
    const Bench bench(script);
    return Ag3352_Upgrade_Sync(bench.handle());
}

TEST(Ag3352Steps, Sync) {
    EXPECT_EQ(synchronise({}), 1024);
    EXPECT_EQ(synchronise({{30, second_answer}}), 1024);
    EXPECT_EQ(synchronise({{30, first_answer}}), 1025);
    EXPECT_EQ(synchronise({{30, first_answer}, {120, first_answer}}), 1025);
    EXPECT_EQ(synchronise({{30, first_answer}, {120, second_answer}}), 0);
}

TEST(Ag3352Steps, SyncHearsTheAnswerToAProbeSentBeforeTheDeadlineToItsEnd) {
    // The last probe is sent 19.98 s after the start and listened to until 20.05 s.
    EXPECT_EQ(synchronise({{20'024, first_answer}, {20'110, second_answer}}), 0);
    // Byte by byte, each before the line counts as silent.
    EXPECT_EQ(synchronise({{20'010, hex("4D")},
                           {20'050, hex("3A")},
                           {20'090, hex("FC")},
                           {20'130, hex("AA")},
                           {20'210, second_answer}}),
              0);
    EXPECT_EQ(synchronise({{20'060, first_answer}, {20'150, second_answer}}), 1024)
        << "nothing came while the last probe's answer was awaited";
}

TEST(Ag3352Steps, SyncLeavesALineThatIsNeverSilentSoonAfterTheDeadline) {
    for (const std::uint64_t first_ms : {0U, 19'990U}) {
        TalkingModule::Script script;
        for (std::uint64_t at_ms = first_ms; at_ms < 30'000; at_ms += 10) {
            script.push_back({at_ms, hex("24")});
        }
        const Bench bench(script);
        EXPECT_EQ(Ag3352_Upgrade_Sync(bench.handle()), 1024);
        EXPECT_GT(bench.elapsed_ms(), 20'000U);
        EXPECT_LT(bench.elapsed_ms(), first_ms == 0 ? 20'100U : 21'100U);
    }
}

using Step = std::function<int(SerialHandle handle)>;

/// The step's code when the module says that. A silent one is gone after a while.
int code_of(const Step& step, const Bytes& answer) {
    const LogText log;
    const Bench bench({{0, answer}});
    return step(bench.handle());
}

void expect_codes(const Step& step, const Answers& answers) {
    EXPECT_EQ(code_of(step, answers.good), 0);
    EXPECT_EQ(code_of(step, answers.refusal), 264);
    EXPECT_EQ(code_of(step, answers.bad_tail), 1026) << "a failed reception's own code";
    EXPECT_EQ(code_of(step, {}), 263);
}

TEST(Ag3352Steps, BootVersion) {
    std::string version;
    expect_codes(
        [&version](SerialHandle handle) { return Ag3352_Upgrade_BootVer(handle, version); },
        versions);
    EXPECT_EQ(version, "V1.10.200");
}

TEST(Ag3352Steps, EraseAndReset) {
    expect_codes(Ag3352_Upgrade_EraseAPP_Flash, acknowledgements);
    expect_codes(Ag3352_Upgrade_Reset, acknowledgements);
}

TEST(Ag3352Steps, FirmwareInformation) {
    const TempDir folder;
    const auto with_path = [](const std::string& path) {
        return [path](SerialHandle handle) {
            int announced = 0;
            return Ag3352_Upgrade_SendFirmwareInfo(handle, path.c_str(), announced);
        };
    };
    expect_codes(with_path(folder.write("app.bin", random_image(100))), acknowledgements);

    EXPECT_EQ(code_of(with_path(folder.path("absent")), acknowledgements.good), 259);
    EXPECT_EQ(code_of(with_path(""), acknowledgements.good), 259);
    EXPECT_EQ(code_of(with_path(folder.path()), acknowledgements.good), 263);
}

TEST(Ag3352Steps, Firmware) {
    const TempDir folder;
    const auto with_path = [](const std::string& path) {
        return [path](SerialHandle handle) {
            return Ag3352_Upgrade_SendFirmware(handle, path.c_str(), 100);
        };
    };
    const Step step = with_path(folder.write("app.bin", random_image(100)));
    EXPECT_EQ(code_of(step, acknowledgements.good), 0);
    Bytes ten_refusals;
    for (int count = 0; count < 10; ++count) {
        ten_refusals.insert(ten_refusals.end(), acknowledgements.refusal.begin(),
                            acknowledgements.refusal.end());
    }
    EXPECT_EQ(code_of(step, ten_refusals), 264);
    EXPECT_EQ(code_of(step, {}), 264) << "ten receptions that failed";
    EXPECT_EQ(code_of(with_path(folder.path("absent")), acknowledgements.good), 263);
}

}  // namespace
}  // namespace orbix::test
