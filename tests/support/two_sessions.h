// Two encoders, each open on a reader of its own, used from two threads at
// once: each reads its card's serial number and makes a call that must fail
// with a record of its own, round after round. Shared by the in-process test
// and the run through pcscd.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "elatectwn4/encoder.h"
#include "support/record_text.h"

namespace elatectwn4::test {

/// One session's part: its encoder (open), its card's UID as ReadSerialNumber
/// gives it, and a call that fails with `failureRecord` (as SessionRecord shows it).
struct SessionPlan {
    Encoder* encoder = nullptr;
    std::string uid;
    std::function<sceReturnCode(Encoder&)> failingCall;
    std::string failureRecord;
};

/// The record in one line, every field (RecordText's line).
inline std::string SessionRecord(const CError& e) {
    return RecordText(e);
}

/// The record a failure leaves, in SessionRecord's form.
inline std::string SessionRecord(ErrorNumber number, const std::string& comFunction, const std::string& rdrCommand,
                                 const std::string& rdrRetCode, std::uint32_t lastDllError = 0) {
    return RecordText(ErrorValue(number), std::string(ErrorDescription(number)), lastDllError, comFunction, rdrCommand,
                      rdrRetCode);
}

/// Runs `rounds` rounds of both plans on two threads started together; the
/// answer is every way in which a session saw something not its own ("" for
/// none), at most a few lines per session.
inline std::string InterleaveSessions(const std::array<SessionPlan, 2>& plans, int rounds) {
    std::array<std::vector<std::string>, 2> mismatches;
    std::latch start(2);
    const auto run = [&](std::size_t i) {
        const SessionPlan& plan = plans[i];
        Encoder& e = *plan.encoder;
        start.arrive_and_wait();
        for (int round = 0; round < rounds && mismatches[i].size() < 3; ++round) {
            const std::string where = "session " + std::to_string(i) + " round " + std::to_string(round) + ": ";
            std::string uid;
            if (e.ReadSerialNumber(uid) != sceSuccess || uid != plan.uid || e.LastError().Number != 0) {
                mismatches[i].push_back(where + "serial number " + uid + " with " + SessionRecord(e.LastError()));
            }
            if (plan.failingCall(e) != sceError || SessionRecord(e.LastError()) != plan.failureRecord) {
                mismatches[i].push_back(where + "failure " + SessionRecord(e.LastError()));
            }
        }
    };
    std::thread other(run, 1);
    run(0);
    other.join();
    std::string all;
    for (const auto& lines : mismatches) {
        for (const auto& line : lines)
            all += line + "\n";
    }
    return all;
}

}  // namespace elatectwn4::test
