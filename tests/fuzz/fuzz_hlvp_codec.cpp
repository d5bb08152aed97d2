// libFuzzer target for everything a peer controls before the agent acts on it: the frame reader
// and the message decoder. Beyond "no crash, no sanitizer report", it checks that whatever
// decodes re-encodes to a message that decodes to the same value.

#include "hlvp_codec.h"

#include <QBuffer>
#include <cstdlib>

using namespace tellwyn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray input(reinterpret_cast<const char*>(data), qsizetype(size));

    // The bytes as one frame body.
    const wire::DecodeResult decoded = wire::decodeMessage(input);
    if (const auto* message = std::get_if<HLVPMessage>(&decoded)) {
        const wire::DecodeResult again = wire::decodeMessage(wire::encodeMessage(*message));
        const auto* second = std::get_if<HLVPMessage>(&again);
        if (second == nullptr || !(*second == *message)) {
            std::abort();
        }
    }

    // The bytes as a stream of frames, under both limits.
    for (const qsizetype limit : {wire::maxUnauthenticatedFrameBytes, wire::maxFrameBytes}) {
        QBuffer device;
        device.setData(input);
        device.open(QIODevice::ReadOnly);
        for (;;) {
            const wire::FrameRead read = wire::readFrame(device, limit);
            if (read.status != wire::FrameRead::Status::frame) {
                break;
            }
            if (read.body.size() > limit) {
                std::abort();
            }
            (void)wire::decodeMessage(read.body);
        }
    }
    return 0;
}
