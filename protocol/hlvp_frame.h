#pragma once

#include "hlvp_limits.h"

#include <QByteArray>
#include <QString>

class QIODevice;

namespace tellwyn::wire {

// Every frame is a 4-byte big-endian length followed by that many bytes of body.
inline constexpr qsizetype frameHeaderBytes = 4;

// The body with its header in front, ready to write.
QByteArray framed(const QByteArray& body);

struct FrameRead {
    enum class Status { frame, incomplete, error };
    Status status = Status::incomplete;
    QByteArray body;
    QString error;
};

// Takes the next whole frame from `device` without consuming a partial one. Reports an error for
// an empty frame or one larger than `maxBytes` as soon as its header has arrived.
FrameRead readFrame(QIODevice& device, qsizetype maxBytes);

} // namespace tellwyn::wire
