#include "hlvp_codec.h"

#include "hlvp_field_codec.h"

#include <QCborStreamReader>
#include <algorithm>

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

DecodeResult decodeMessage(QByteArrayView body) {
    QCborStreamReader reader(reinterpret_cast<const quint8*>(body.data()), body.size());
    if (!reader.isMap()) {
        return DecodeError{u"the frame does not hold a CBOR map"_s};
    }
    const QCborValue value = QCborValue::fromCbor(reader);
    if (reader.lastError() != QCborError::NoError) {
        return DecodeError{u"the frame is not valid CBOR: "_s + reader.lastError().toString()};
    }
    if (reader.currentOffset() != body.size()) {
        return DecodeError{u"the frame has bytes after its CBOR map"_s};
    }
    const QCborMap map = value.toMap();
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
    FieldReader read(map);
    HLVPMessage message = decoders[std::size_t(known - messageTraitsTable.begin())](read);
    if (!read.ok()) {
        return DecodeError{read.error()};
    }
    return message;
}

} // namespace tellwyn::wire
