#pragma once

#include <cstddef>
#include <cstdint>

// What a crashed process hands to its helper process, and how long it waits for the helper.
// Everything here is plain data and arithmetic so that the signal handler can use it.

namespace tellwyn {

struct CrashRecord {
    static constexpr std::uint32_t magicValue = 0x43574c54; // "TLWC"
    static constexpr int maxFrames = 128;
    static constexpr int maxUserInfo = 4;

    std::uint32_t magic = magicValue;
    std::uint32_t size = sizeof(CrashRecord);
    std::int32_t signal = 0;            // the fatal signal, 0 for an uncaught exception
    std::uint32_t isException = 0;      // 1: the exception fields below are filled
    std::uint32_t hasReason = 0;        // the exception has a reason (`what()`)
    std::uint32_t hasUserInfo = 0;      // the exception carries user info (possibly empty)
    std::uint32_t userInfoCount = 0;    // filled entries of userInfo
    std::uint32_t hasUserInterface = 0; // the crashed process ran a GUI application
    std::int64_t pid = 0;
    std::int64_t seconds = 0; // time of the crash, UTC seconds since the epoch
    std::int64_t nanoseconds = 0;
    std::uint64_t instructionAddress = 0; // where the signal struck, 0 when unknown
    std::uint32_t frameCount = 0;
    std::uint32_t reserved = 0;
    std::uint64_t frames[maxFrames] = {};
    char applicationName[128] = {};
    char version[64] = {};
    char osVersion[256] = {};
    char exceptionType[512] = {}; // the type's mangled name
    char exceptionReason[4096] = {};
    char userInfo[maxUserInfo][2][128] = {};
};

// The helper's answers, one byte each, in this order.
namespace HelperMessage {
constexpr char requestStarted = 'R'; // the upload request is on its way
constexpr char uploadOver = 'U';     // finished, refused or abandoned after its wait
constexpr char alertShown = 'A';     // the alert is up; 'D' follows when dismissed
constexpr char noAlert = 'N';        // no display: nothing will be shown
constexpr char alertDismissed = 'D';
} // namespace HelperMessage

// The crashed thread's waits for its helper, in nanoseconds of a monotonic clock. The helper gets
// a moment to start and build the report; then come the reporter's own waits: the upload at most
// 0.5 s, the alert at most 10.0 s. The 0.5 s pause before dying follows once this is finished.
class CrashWait {
public:
    static constexpr std::int64_t helperStartLimit = 3'000'000'000;
    static constexpr std::int64_t uploadLimit = 500'000'000;
    static constexpr std::int64_t alertStartLimit = 1'000'000'000;
    static constexpr std::int64_t alertLimit = 10'000'000'000;
    static constexpr std::int64_t finalPause = 500'000'000;

    explicit CrashWait(std::int64_t start) : m_deadline(start + helperStartLimit) {}

    bool finished() const { return m_phase == Phase::done; }
    std::int64_t deadline() const { return m_deadline; }

    void onMessage(char message, std::int64_t now) {
        switch (message) {
        case HelperMessage::requestStarted:
            if (m_phase == Phase::starting) {
                enter(Phase::uploading, now + uploadLimit);
            }
            break;
        case HelperMessage::uploadOver:
            if (m_phase == Phase::starting || m_phase == Phase::uploading) {
                enter(Phase::afterUpload, now + alertStartLimit);
            }
            break;
        case HelperMessage::alertShown:
            if (m_phase != Phase::done && m_phase != Phase::alert) {
                enter(Phase::alert, now + alertLimit);
            }
            break;
        case HelperMessage::noAlert:
        case HelperMessage::alertDismissed:
            m_phase = Phase::done;
            break;
        default:
            break;
        }
    }

    // The deadline passed without an answer.
    void onTimeout(std::int64_t now) {
        if (m_phase == Phase::uploading) {
            // The helper abandons the upload at the same moment and goes on to the alert.
            enter(Phase::afterUpload, now + alertStartLimit);
        } else {
            m_phase = Phase::done;
        }
    }

    void onHelperGone() { m_phase = Phase::done; }

private:
    enum class Phase { starting, uploading, afterUpload, alert, done };

    void enter(Phase phase, std::int64_t deadline) {
        m_phase = phase;
        m_deadline = deadline;
    }

    Phase m_phase = Phase::starting;
    std::int64_t m_deadline;
};

} // namespace tellwyn
