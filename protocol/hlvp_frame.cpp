#include "hlvp_frame.h"

#include <QIODevice>
#include <QtEndian>

using namespace Qt::StringLiterals;

namespace tellwyn::wire {

QByteArray framed(const QByteArray& body) {
    QByteArray frame(frameHeaderBytes, Qt::Uninitialized);
    qToBigEndian(quint32(body.size()), frame.data());
    return frame + body;
}

FrameRead readFrame(QIODevice& device, qsizetype maxBytes) {
    FrameRead result;
    if (device.bytesAvailable() < frameHeaderBytes) {
        return result;
    }
    char header[frameHeaderBytes];
    if (device.peek(header, frameHeaderBytes) != frameHeaderBytes) {
        return result;
    }
    const quint32 length = qFromBigEndian<quint32>(header);
    if (length == 0 || qint64(length) > qint64(maxBytes)) {
        result.status = FrameRead::Status::error;
        result.error = length == 0
                           ? u"empty frame"_s
                           : u"frame of %1 bytes exceeds the limit of %2 bytes"_s.arg(length).arg(maxBytes);
        return result;
    }
    if (device.bytesAvailable() < frameHeaderBytes + qint64(length)) {
        return result;
    }
    device.skip(frameHeaderBytes);
    result.body = device.read(length);
    result.status = FrameRead::Status::frame;
    return result;
}

} // namespace tellwyn::wire
