#include "hlvp_codec_screen.h"

#include "hlvp_codec.h"

#include <QCborArray>
#include <QCborValue>
#include <array>
#include <limits>

using namespace Qt::StringLiterals;

namespace tellwyn::wire {

namespace {

constexpr std::array encodingNames{std::pair{HLVPScreenRect::Encoding::solid, "solid"},
                                   std::pair{HLVPScreenRect::Encoding::copy, "copy"},
                                   std::pair{HLVPScreenRect::Encoding::zstd, "zstd"},
                                   std::pair{HLVPScreenRect::Encoding::palette, "palette"},
                                   std::pair{HLVPScreenRect::Encoding::jpeg, "jpeg"}};

QCborMap start(const char* type, const std::optional<quint32>& sequenceNumber) {
    QCborMap map;
    map.insert(u"type"_s, QString::fromLatin1(type));
    if (sequenceNumber) {
        map.insert(u"sequenceNumber"_s, qint64(*sequenceNumber));
    }
    return map;
}

void put(QCborMap& map, const QString& key, quint32 value) {
    map.insert(key, qint64(value));
}

QCborArray monitorList(const QList<HLVPScreenMonitor>& monitors) {
    QCborArray list;
    for (const HLVPScreenMonitor& monitor : monitors) {
        QCborMap entry;
        put(entry, u"x"_s, monitor.x);
        put(entry, u"y"_s, monitor.y);
        put(entry, u"width"_s, monitor.width);
        put(entry, u"height"_s, monitor.height);
        entry.insert(u"name"_s, monitor.name);
        entry.insert(u"primary"_s, monitor.primary);
        list.append(entry);
    }
    return list;
}

// Typed reads of one map; the first problem is kept and later reads return defaults.
class Fields {
public:
    explicit Fields(const QCborMap& map) : m_map(map) {}

    const QString& error() const { return m_error; }
    bool ok() const { return m_error.isEmpty(); }
    void fail(const QString& reason) {
        if (m_error.isEmpty()) {
            m_error = reason;
        }
    }
    bool has(const QString& key) const { return m_map.contains(key); }

    quint32 u32(const QString& key) {
        const QCborValue value = m_map.value(key);
        if (!has(key)) {
            fail(u"missing field \"%1\""_s.arg(key));
        } else if (!value.isInteger() || value.toInteger() < 0 ||
                   value.toInteger() > qint64(std::numeric_limits<quint32>::max())) {
            fail(u"field \"%1\" is not an unsigned 32-bit integer"_s.arg(key));
        } else {
            return quint32(value.toInteger());
        }
        return 0;
    }
    std::optional<quint32> optionalU32(const QString& key) {
        return has(key) ? std::optional<quint32>(u32(key)) : std::nullopt;
    }
    bool boolean(const QString& key) {
        const QCborValue value = m_map.value(key);
        if (!value.isBool()) {
            fail(has(key) ? u"field \"%1\" is not a Boolean"_s.arg(key) : u"missing field \"%1\""_s.arg(key));
            return false;
        }
        return value.toBool();
    }
    QString text(const QString& key, qsizetype maxBytes) {
        const QCborValue value = m_map.value(key);
        if (!value.isString()) {
            fail(has(key) ? u"field \"%1\" is not text"_s.arg(key) : u"missing field \"%1\""_s.arg(key));
            return {};
        }
        QString text = value.toString();
        if (text.toUtf8().size() > maxBytes) {
            fail(u"field \"%1\" is longer than %2 bytes"_s.arg(key).arg(maxBytes));
            return {};
        }
        return text;
    }
    QByteArray bytes(const QString& key, qsizetype maxBytes) {
        const QCborValue value = m_map.value(key);
        if (!value.isByteArray()) {
            fail(has(key) ? u"field \"%1\" is not a byte string"_s.arg(key)
                          : u"missing field \"%1\""_s.arg(key));
            return {};
        }
        QByteArray bytes = value.toByteArray();
        if (bytes.size() > maxBytes) {
            fail(u"field \"%1\" is longer than %2 bytes"_s.arg(key).arg(maxBytes));
            return {};
        }
        return bytes;
    }
    QCborArray list(const QString& key, qsizetype maxEntries) {
        const QCborValue value = m_map.value(key);
        if (!value.isArray() || value.toArray().size() > maxEntries) {
            fail(u"field \"%1\" is not a list of at most %2 entries"_s.arg(key).arg(maxEntries));
            return {};
        }
        return value.toArray();
    }

private:
    const QCborMap& m_map;
    QString m_error;
};

QList<HLVPScreenMonitor> readMonitors(Fields& fields) {
    QList<HLVPScreenMonitor> monitors;
    for (const QCborValue& entry : fields.list(u"monitors"_s, maxScreenMonitors)) {
        const QCborMap map = entry.toMap();
        Fields monitor(map);
        if (!entry.isMap()) {
            monitor.fail(u"not a map"_s);
        }
        monitors.append({monitor.u32(u"x"_s), monitor.u32(u"y"_s), monitor.u32(u"width"_s),
                         monitor.u32(u"height"_s), monitor.text(u"name"_s, maxNameBytes),
                         monitor.boolean(u"primary"_s)});
        if (!monitor.ok()) {
            fields.fail(u"monitor: "_s + monitor.error());
            break;
        }
    }
    return monitors;
}

HLVPScreenRect readRect(Fields& rect) {
    HLVPScreenRect r;
    r.x = rect.u32(u"x"_s);
    r.y = rect.u32(u"y"_s);
    r.w = rect.u32(u"w"_s);
    r.h = rect.u32(u"h"_s);
    const QString encoding = rect.text(u"encoding"_s, maxNameBytes);
    const auto found = std::find_if(encodingNames.begin(), encodingNames.end(), [&](const auto& entry) {
        return encoding == QLatin1String(entry.second);
    });
    if (found == encodingNames.end()) {
        rect.fail(u"unknown encoding \"%1\""_s.arg(encoding.left(64)));
        return r;
    }
    r.encoding = found->first;
    switch (r.encoding) {
    case HLVPScreenRect::Encoding::solid:
        r.color = rect.u32(u"color"_s);
        if (r.color > 0xFFFFFF) {
            rect.fail(u"field \"color\" is not 0xRRGGBB"_s);
        }
        break;
    case HLVPScreenRect::Encoding::copy:
        r.srcX = rect.u32(u"srcX"_s);
        r.srcY = rect.u32(u"srcY"_s);
        break;
    case HLVPScreenRect::Encoding::palette:
        r.palette = rect.bytes(u"palette"_s, 256 * 3);
        if (rect.ok() && (r.palette.size() < 6 || r.palette.size() % 3 != 0)) {
            rect.fail(u"field \"palette\" does not hold 2 to 256 colours"_s);
        }
        r.data = rect.bytes(u"data"_s, maxFrameBytes);
        break;
    case HLVPScreenRect::Encoding::zstd:
    case HLVPScreenRect::Encoding::jpeg:
        r.data = rect.bytes(u"data"_s, maxFrameBytes);
        break;
    }
    if (rect.ok() && (r.w == 0 || r.h == 0)) {
        rect.fail(u"an empty rectangle"_s);
    }
    return r;
}

} // namespace

QString toString(HLVPScreenRect::Encoding encoding) {
    for (const auto& [value, name] : encodingNames) {
        if (value == encoding) {
            return QString::fromLatin1(name);
        }
    }
    return {};
}

QCborMap encodeFields(const ScreenFrameAckMessage& m) {
    QCborMap map = start("screenFrameAck", m.sequenceNumber);
    put(map, u"streamID"_s, m.streamID);
    put(map, u"frame"_s, m.frame);
    return map;
}

QCborMap encodeFields(const ScreenStopMessage& m) {
    QCborMap map = start("screenStop", m.sequenceNumber);
    if (m.streamID) {
        put(map, u"streamID"_s, *m.streamID);
    }
    return map;
}

QCborMap encodeFields(const ScreenStreamStartedMessage& m) {
    QCborMap map = start("screenStreamStarted", m.sequenceNumber);
    put(map, u"streamID"_s, m.streamID);
    put(map, u"width"_s, m.width);
    put(map, u"height"_s, m.height);
    map.insert(u"monitors"_s, monitorList(m.monitors));
    map.insert(u"mode"_s, m.mode);
    put(map, u"maxFPS"_s, m.maxFPS);
    put(map, u"ackWindow"_s, m.ackWindow);
    return map;
}

QCborMap encodeFields(const ScreenGeometryMessage& m) {
    QCborMap map = start("screenGeometry", m.sequenceNumber);
    put(map, u"streamID"_s, m.streamID);
    put(map, u"width"_s, m.width);
    put(map, u"height"_s, m.height);
    map.insert(u"monitors"_s, monitorList(m.monitors));
    return map;
}

QCborMap encodeFields(const ScreenFrameMessage& m) {
    QCborMap map = start("screenFrame", m.sequenceNumber);
    put(map, u"streamID"_s, m.streamID);
    put(map, u"frame"_s, m.frame);
    put(map, u"part"_s, m.part);
    map.insert(u"final"_s, m.final);
    QCborArray rects;
    for (const HLVPScreenRect& r : m.rects) {
        QCborMap rect;
        put(rect, u"x"_s, r.x);
        put(rect, u"y"_s, r.y);
        put(rect, u"w"_s, r.w);
        put(rect, u"h"_s, r.h);
        rect.insert(u"encoding"_s, toString(r.encoding));
        switch (r.encoding) {
        case HLVPScreenRect::Encoding::solid:
            put(rect, u"color"_s, r.color);
            break;
        case HLVPScreenRect::Encoding::copy:
            put(rect, u"srcX"_s, r.srcX);
            put(rect, u"srcY"_s, r.srcY);
            break;
        case HLVPScreenRect::Encoding::palette:
            rect.insert(u"palette"_s, r.palette);
            rect.insert(u"data"_s, r.data);
            break;
        case HLVPScreenRect::Encoding::zstd:
        case HLVPScreenRect::Encoding::jpeg:
            rect.insert(u"data"_s, r.data);
            break;
        }
        rects.append(rect);
    }
    map.insert(u"rects"_s, rects);
    return map;
}

QCborMap encodeFields(const ScreenCursorMessage& m) {
    QCborMap map = start("screenCursor", m.sequenceNumber);
    put(map, u"streamID"_s, m.streamID);
    put(map, u"x"_s, m.x);
    put(map, u"y"_s, m.y);
    map.insert(u"visible"_s, m.visible);
    put(map, u"serial"_s, m.serial);
    if (m.shape) {
        put(map, u"width"_s, m.shape->width);
        put(map, u"height"_s, m.shape->height);
        put(map, u"hotX"_s, m.shape->hotX);
        put(map, u"hotY"_s, m.shape->hotY);
        map.insert(u"pixels"_s, m.shape->pixels);
    }
    return map;
}

QCborMap encodeFields(const ScreenStreamEndedMessage& m) {
    QCborMap map = start("screenStreamEnded", m.sequenceNumber);
    put(map, u"streamID"_s, m.streamID);
    map.insert(u"reason"_s, m.reason);
    map.insert(u"message"_s, m.message);
    return map;
}

std::optional<ScreenDecodeResult> decodeScreenMessage(const QString& type, const QCborMap& map) {
    Fields f(map);
    const auto sequence = [&] {
        return f.optionalU32(u"sequenceNumber"_s);
    };
    std::optional<HLVPMessage> message;
    if (type == u"screenFrameAck"_s) {
        message = ScreenFrameAckMessage{f.u32(u"streamID"_s), f.u32(u"frame"_s), sequence()};
    } else if (type == u"screenStop"_s) {
        message = ScreenStopMessage{f.optionalU32(u"streamID"_s), sequence()};
    } else if (type == u"screenStreamStarted"_s) {
        ScreenStreamStartedMessage m;
        m.streamID = f.u32(u"streamID"_s);
        m.width = f.u32(u"width"_s);
        m.height = f.u32(u"height"_s);
        m.monitors = readMonitors(f);
        m.mode = f.text(u"mode"_s, maxNameBytes);
        m.maxFPS = f.u32(u"maxFPS"_s);
        m.ackWindow = f.u32(u"ackWindow"_s);
        m.sequenceNumber = sequence();
        message = m;
    } else if (type == u"screenGeometry"_s) {
        ScreenGeometryMessage m;
        m.streamID = f.u32(u"streamID"_s);
        m.width = f.u32(u"width"_s);
        m.height = f.u32(u"height"_s);
        m.monitors = readMonitors(f);
        m.sequenceNumber = sequence();
        message = m;
    } else if (type == u"screenFrame"_s) {
        ScreenFrameMessage m;
        m.streamID = f.u32(u"streamID"_s);
        m.frame = f.u32(u"frame"_s);
        m.part = f.u32(u"part"_s);
        m.final = f.boolean(u"final"_s);
        for (const QCborValue& entry : f.list(u"rects"_s, maxScreenRects)) {
            const QCborMap rectMap = entry.toMap();
            Fields rect(rectMap);
            if (!entry.isMap()) {
                rect.fail(u"not a map"_s);
            }
            m.rects.append(readRect(rect));
            if (!rect.ok()) {
                f.fail(u"rectangle: "_s + rect.error());
                break;
            }
        }
        m.sequenceNumber = sequence();
        message = m;
    } else if (type == u"screenCursor"_s) {
        ScreenCursorMessage m;
        m.streamID = f.u32(u"streamID"_s);
        m.x = f.u32(u"x"_s);
        m.y = f.u32(u"y"_s);
        m.visible = f.boolean(u"visible"_s);
        m.serial = f.u32(u"serial"_s);
        if (f.has(u"pixels"_s)) {
            ScreenCursorMessage::Shape shape{
                f.u32(u"width"_s), f.u32(u"height"_s), f.u32(u"hotX"_s), f.u32(u"hotY"_s), {}};
            if (f.ok() && (shape.width > maxCursorSide || shape.height > maxCursorSide)) {
                f.fail(u"the cursor is larger than %1 pixels a side"_s.arg(maxCursorSide));
            }
            shape.pixels = f.bytes(u"pixels"_s, qsizetype(maxCursorSide * maxCursorSide * 4));
            if (f.ok() && shape.pixels.size() != qsizetype(shape.width) * shape.height * 4) {
                f.fail(u"field \"pixels\" does not hold width × height pixels"_s);
            }
            m.shape = shape;
        }
        m.sequenceNumber = sequence();
        message = m;
    } else if (type == u"screenStreamEnded"_s) {
        message = ScreenStreamEndedMessage{f.u32(u"streamID"_s), f.text(u"reason"_s, maxNameBytes),
                                           f.text(u"message"_s, maxTextBytes), sequence()};
    } else {
        return std::nullopt;
    }
    if (!f.ok()) {
        return ScreenDecodeResult(f.error());
    }
    return ScreenDecodeResult(std::move(*message));
}

} // namespace tellwyn::wire
