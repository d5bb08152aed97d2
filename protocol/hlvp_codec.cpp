#include "hlvp_codec.h"

#include "hlvp_field_codec.h"

#include <QCborStreamReader>
#include <QHash>
#include <algorithm>
#include <vector>

using namespace Qt::StringLiterals;

namespace tellwyn::wire {

namespace {

template <typename Message> QCborMap encodeFields(const Message& message) {
    QCborMap map;
    map.insert(u"type"_s, QLatin1StringView(Message::traits.wireName));
    FieldWriter write(map);
    Message::fields(message, write);
    write("sequenceNumber", message.sequenceNumber);
    return map;
}

template <typename Message> HLVPMessage decodeFields(FieldReader& read) {
    Message message;
    Message::fields(message, read);
    read("sequenceNumber", message.sequenceNumber);
    read.checkProblem(message);
    return message;
}

template <std::size_t... index> constexpr auto decodersOfAlternatives(std::index_sequence<index...>) {
    return std::array{&decodeFields<std::variant_alternative_t<index, HLVPMessage>>...};
}
// The decoder of each message type, by its index in HLVPMessage.
constexpr auto decoders =
    decodersOfAlternatives(std::make_index_sequence<std::variant_size_v<HLVPMessage>>{});

} // namespace

QByteArray encodeMessage(const HLVPMessage& message) {
    return std::visit([](const auto& m) { return QCborValue(encodeFields(m)).toCbor(); }, message);
}

QByteArray encodeFrame(const HLVPMessage& message) {
    return framed(encodeMessage(message));
}

namespace {

// Byte strings at least this long are taken from the frame without a copy. No frame before sign-in
// is this large, so the bytes of a password are never handed on this way and can still be wiped.
constexpr qsizetype takenByteStringBytes = maxUnauthenticatedFrameBytes;

DecodeResult decodeMap(const QCborMap& map, QHash<QString, QByteArray> takenBytes) {
    if (map.size() > maxMapEntries) {
        return DecodeError{u"the message has more than %1 fields"_s.arg(maxMapEntries)};
    }
    const QCborValue typeValue = map.value(u"type"_s);
    if (!typeValue.isString()) {
        return DecodeError{u"the message has no text field \"type\""_s};
    }
    const QString type = typeValue.toString();
    const auto known =
        std::find_if(messageTraitsTable.begin(), messageTraitsTable.end(),
                     [&](const MessageTraits& traits) { return type == QLatin1StringView(traits.wireName); });
    if (known == messageTraitsTable.end()) {
        return DecodeError{u"unknown message type \"%1\""_s.arg(type.left(64))};
    }
    FieldReader read(map, std::move(takenBytes));
    HLVPMessage message = decoders[std::size_t(known - messageTraitsTable.begin())](read);
    if (!read.ok()) {
        return DecodeError{read.error()};
    }
    return message;
}

DecodeError invalidCbor(QCborStreamReader& reader) {
    return DecodeError{u"the frame is not valid CBOR: "_s + reader.lastError().toString()};
}

} // namespace

DecodeResult decodeMessage(QByteArrayView body) {
    QCborStreamReader reader(reinterpret_cast<const quint8*>(body.data()), body.size());
    if (!reader.isMap()) {
        return DecodeError{u"the frame does not hold a CBOR map"_s};
    }
    const QCborValue value = QCborValue::fromCbor(reader);
    if (reader.lastError() != QCborError::NoError) {
        return invalidCbor(reader);
    }
    if (reader.currentOffset() != body.size()) {
        return DecodeError{u"the frame has bytes after its CBOR map"_s};
    }
    return decodeMap(value.toMap(), {});
}

DecodeResult decodeMessage(QByteArray& body) {
    if (body.size() <= takenByteStringBytes) {
        return decodeMessage(QByteArrayView(body));
    }
    QCborStreamReader reader(reinterpret_cast<const quint8*>(body.constData()), body.size());
    if (!reader.isMap()) {
        return DecodeError{u"the frame does not hold a CBOR map"_s};
    }
    struct Range {
        QString key;
        qint64 start = 0;
        qint64 length = 0;
    };
    std::vector<Range> large;
    QCborMap map;
    if (!reader.enterContainer()) {
        return invalidCbor(reader);
    }
    while (reader.lastError() == QCborError::NoError && reader.hasNext()) {
        if (map.size() > maxMapEntries) {
            return DecodeError{u"the message has more than %1 fields"_s.arg(maxMapEntries)};
        }
        const QCborValue key = QCborValue::fromCbor(reader);
        if (reader.lastError() != QCborError::NoError) {
            break;
        }
        if (key.isString() && reader.isByteArray() && reader.isLengthKnown() &&
            reader.length() >= quint64(takenByteStringBytes)) {
            const auto length = qint64(reader.length());
            reader.next(); // skips the bytes without reading them out
            large.push_back({key.toString(), reader.currentOffset() - length, length});
            map.insert(key, QCborValue(QCborValue::ByteArray));
        } else {
            std::erase_if(large, [&](const Range& range) { return key == QCborValue(range.key); });
            map.insert(key, QCborValue::fromCbor(reader));
        }
    }
    if (reader.lastError() != QCborError::NoError || !reader.leaveContainer()) {
        return invalidCbor(reader);
    }
    if (reader.currentOffset() != body.size()) {
        return DecodeError{u"the frame has bytes after its CBOR map"_s};
    }
    QHash<QString, QByteArray> takenBytes;
    for (std::size_t i = 0; i + 1 < large.size(); ++i) {
        takenBytes.insert(large[i].key, body.sliced(large[i].start, large[i].length));
    }
    if (!large.empty()) {
        // The last one keeps the frame's own buffer: cutting off the front only moves its start.
        QByteArray bytes = std::move(body);
        body = QByteArray();
        bytes.remove(0, large.back().start);
        bytes.truncate(large.back().length);
        takenBytes.insert(large.back().key, std::move(bytes));
    }
    return decodeMap(map, std::move(takenBytes));
}

} // namespace tellwyn::wire
