#pragma once

#include "file_writer.h"
#include "hlvp.h"
#include "hlvp_messages.h"

#include <QFile>
#include <QString>
#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace tellwyn {

// A name that is safe to create inside a folder: the last path component only, without control
// or direction-changing characters, without leading dots, at most `maxFileNameBytes` in UTF-8 with
// the extension kept; "file" when nothing usable is left.
QString safeFileName(const QString& offered);
// `name`, or "name (1).ext", "name (2).ext" … : the first that does not exist in `directory`.
QString uniqueFileName(const QString& directory, const QString& name);

inline constexpr qsizetype maxFileNameBytes = 200; // leaves room for " (n)" within NAME_MAX

struct FileTransferLimits {
    quint64 maxFileBytes = 64ULL * 1024 * 1024 * 1024;
    quint64 freeSpaceMargin = 64ULL * 1024 * 1024; // kept free on the disk in any case
    int maxConcurrentTransfers = 4;
    quint32 windowBytes = 4 * 1024 * 1024; // unacknowledged bytes a viewer may send
    // Free bytes for an ordinary user on the disk holding the folder; none when unknown.
    std::function<std::optional<quint64>(const QString& directory)> freeSpace;
};

// Receives the files a viewer uploads on one connection: offer, chunks, completion, checked with
// SHA-256, flushed to the disk and renamed into place only when whole and verified. Nothing partial ever
// carries a final name, and a transfer that breaks off leaves nothing behind.
class FileTransferReceiver {
public:
    using Sender = std::function<void(const HLVPMessage& message)>;

    FileTransferReceiver(Sender send, std::function<void()> activity, HLVP::LogFunction log,
                         FileTransferLimits limits = FileTransferLimits());
    ~FileTransferReceiver();
    FileTransferReceiver(const FileTransferReceiver&) = delete;
    FileTransferReceiver& operator=(const FileTransferReceiver&) = delete;

    // Switching transfers off cancels those under way.
    void configure(bool enabled, const QString& directory);
    // Offer, chunk, completion or cancel from the viewer.
    void handle(const HLVPMessage& message);
    // Ends every transfer and removes its partial file; tells the viewer when `reason` is given.
    void abortAll(const std::optional<QString>& reason);

    qsizetype activeTransfers() const { return qsizetype(m_transfers.size()); }

private:
    struct Transfer {
        QString offeredName;
        QString baseName; // the safe name; savedName is it or a numbered form of it
        QString savedName;
        quint64 size = 0;
        quint64 received = 0;
        std::unique_ptr<QFile> file;
        std::unique_ptr<FileWriter> writer; // writes and hashes `file`; gone before it closes
    };

    void offer(const FileOfferMessage& message);
    void chunk(const FileChunkMessage& message);
    void complete(const FileCompleteMessage& message);
    void refuse(const QString& transferID, const QString& reason);
    void fail(const QString& transferID, const QString& reason);
    void discard(Transfer& transfer);
    void log(const QString& message, const QString& category) const;

    Sender m_send;
    std::function<void()> m_activity;
    HLVP::LogFunction m_log;
    FileTransferLimits m_limits;
    bool m_enabled = false;
    QString m_directory;
    std::map<QString, Transfer> m_transfers;
};

} // namespace tellwyn
