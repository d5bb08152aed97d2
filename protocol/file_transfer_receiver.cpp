#include "file_transfer_receiver.h"

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QUuid>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

bool isUnsafeCharacter(char32_t c) {
    return c < 0x20 || c == 0x7f || (c >= 0x80 && c < 0xa0) || c == 0xfffd ||
           // Direction overrides and isolates make a name display as something it is not.
           (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) || c == 0x200e || c == 0x200f;
}

// Cuts `text` to at most `maxBytes` of UTF-8 without splitting a character.
QString truncatedUtf8(const QString& text, qsizetype maxBytes) {
    QString result;
    qsizetype bytes = 0;
    for (const char32_t c : text.toUcs4()) {
        const qsizetype size = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
        if (bytes + size > maxBytes) {
            break;
        }
        bytes += size;
        result += QString::fromUcs4(&c, 1);
    }
    return result;
}

std::optional<quint64> statvfsFreeSpace(const QString& directory) {
    // The folder may not exist yet: ask about the nearest one that does.
    QString existing = directory;
    while (!existing.isEmpty() && !QFileInfo(existing).isDir()) {
        const QString parent = QFileInfo(existing).absolutePath();
        if (parent == existing) {
            break;
        }
        existing = parent;
    }
    struct statvfs info {};
    if (::statvfs(QFile::encodeName(existing).constData(), &info) != 0) {
        return std::nullopt;
    }
    return quint64(info.f_bavail) * info.f_frsize;
}

// Whether anything, even a dangling symbolic link, holds `path`.
bool isTaken(const QString& path) {
    struct stat info {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

// Removes the hidden partial files in `directory` that no transfer is writing: each transfer holds
// a lock on its own while it lives, so one that can be locked was left by an agent that died.
void removeAbandonedPartialFiles(const QString& directory) {
    const QDir folder(directory);
    const QStringList partials =
        folder.entryList({u".tellwyn-upload-*.part"_s}, QDir::Files | QDir::Hidden | QDir::System);
    for (const QString& name : partials) {
        const QByteArray path = QFile::encodeName(folder.filePath(name));
        const int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            ::unlink(path.constData());
        }
        ::close(fd);
    }
}

QString sizeText(quint64 bytes) {
    return QLocale::c().formattedDataSize(qint64(std::min<quint64>(bytes, INT64_MAX)), 1,
                                          QLocale::DataSizeIecFormat);
}

} // namespace

QString safeFileName(const QString& offered) {
    const qsizetype slash = std::max(offered.lastIndexOf(u'/'), offered.lastIndexOf(u'\\'));
    QString name;
    for (const char32_t c : offered.mid(slash + 1).toUcs4()) {
        if (!isUnsafeCharacter(c)) {
            name += QString::fromUcs4(&c, 1);
        }
    }
    name = name.trimmed();
    while (name.startsWith(u'.')) {
        name.remove(0, 1);
    }
    while (name.endsWith(u'.') || name.endsWith(u' ')) {
        name.chop(1);
    }
    name = name.trimmed();
    if (name.isEmpty()) {
        return u"file"_s;
    }
    if (name.toUtf8().size() <= maxFileNameBytes) {
        return name;
    }
    const qsizetype dot = name.lastIndexOf(u'.');
    const QString extension = dot > 0 && name.size() - dot <= 16 ? name.mid(dot) : QString();
    return truncatedUtf8(name.left(name.size() - extension.size()),
                         maxFileNameBytes - extension.toUtf8().size())
               .trimmed() +
           extension;
}

QString uniqueFileName(const QString& directory, const QString& name) {
    const QDir folder(directory);
    if (!isTaken(folder.filePath(name))) {
        return name;
    }
    const qsizetype dot = name.lastIndexOf(u'.');
    const QString base = dot > 0 ? name.left(dot) : name;
    const QString extension = dot > 0 ? name.mid(dot) : QString();
    for (int n = 1;; ++n) {
        const QString candidate = u"%1 (%2)%3"_s.arg(base).arg(n).arg(extension);
        if (!isTaken(folder.filePath(candidate))) {
            return candidate;
        }
    }
}

FileTransferReceiver::FileTransferReceiver(Sender send, std::function<void()> activity, HLVP::LogFunction log,
                                           FileTransferLimits limits)
    : m_send(std::move(send)), m_activity(std::move(activity)), m_log(std::move(log)),
      m_limits(std::move(limits)) {
    if (!m_limits.freeSpace) {
        m_limits.freeSpace = statvfsFreeSpace;
    }
}

FileTransferReceiver::~FileTransferReceiver() {
    abortAll(std::nullopt);
}

void FileTransferReceiver::log(const QString& message, const QString& category) const {
    if (m_log) {
        m_log(message, category);
    }
}

void FileTransferReceiver::configure(bool enabled, const QString& directory) {
    m_enabled = enabled;
    m_directory = directory;
    if (!enabled && !m_transfers.empty()) {
        abortAll(u"File transfers were switched off on this computer."_s);
    }
}

void FileTransferReceiver::handle(const HLVPMessage& message) {
    if (const auto* offered = std::get_if<FileOfferMessage>(&message)) {
        offer(*offered);
    } else if (const auto* data = std::get_if<FileChunkMessage>(&message)) {
        chunk(*data);
    } else if (const auto* done = std::get_if<FileCompleteMessage>(&message)) {
        complete(*done);
    } else if (const auto* cancel = std::get_if<FileCancelMessage>(&message)) {
        const auto found = m_transfers.find(cancel->transferID);
        if (found != m_transfers.end()) {
            log(u"the viewer cancelled \"%1\": %2"_s.arg(found->second.offeredName, cancel->reason),
                u"TRANSFER"_s);
            discard(found->second);
            m_transfers.erase(found);
        }
    }
}

void FileTransferReceiver::refuse(const QString& transferID, const QString& reason) {
    log(u"refused a file: %1"_s.arg(reason), u"TRANSFER"_s);
    m_send(FileResultMessage{transferID, false, std::nullopt, reason, std::nullopt});
}

void FileTransferReceiver::fail(const QString& transferID, const QString& reason) {
    const auto found = m_transfers.find(transferID);
    if (found != m_transfers.end()) {
        log(u"receiving \"%1\" failed: %2"_s.arg(found->second.offeredName, reason), u"TRANSFER"_s);
        discard(found->second);
        m_transfers.erase(found);
    }
    m_send(FileResultMessage{transferID, false, std::nullopt, reason, std::nullopt});
}

void FileTransferReceiver::discard(Transfer& transfer) {
    transfer.writer.reset();
    if (transfer.file) {
        transfer.file->close();
        transfer.file->remove();
        transfer.file.reset();
    }
}

void FileTransferReceiver::abortAll(const std::optional<QString>& reason) {
    for (auto& [id, transfer] : m_transfers) {
        discard(transfer);
        if (reason) {
            log(u"receiving \"%1\" stopped: %2"_s.arg(transfer.offeredName, *reason), u"TRANSFER"_s);
            m_send(FileCancelMessage{id, *reason, std::nullopt});
        }
    }
    m_transfers.clear();
}

void FileTransferReceiver::offer(const FileOfferMessage& message) {
    if (!m_enabled) {
        refuse(message.transferID, u"File transfers are switched off on this computer."_s);
        return;
    }
    if (m_transfers.count(message.transferID) != 0) {
        refuse(message.transferID, u"A transfer with this id is already under way."_s);
        return;
    }
    if (qsizetype(m_transfers.size()) >= m_limits.maxConcurrentTransfers) {
        refuse(message.transferID, u"At most %1 files can be received at once on one connection."_s.arg(
                                       m_limits.maxConcurrentTransfers));
        return;
    }
    if (message.size > m_limits.maxFileBytes) {
        refuse(message.transferID, u"The file is larger than this computer accepts (%1 at most)."_s.arg(
                                       sizeText(m_limits.maxFileBytes)));
        return;
    }
    const std::optional<quint64> free = m_limits.freeSpace(m_directory);
    if (free && (*free < m_limits.freeSpaceMargin || *free - m_limits.freeSpaceMargin < message.size)) {
        refuse(
            message.transferID,
            u"Not enough free space on this computer: %1 needed (%2 for the file and %3 kept free), %4 available."_s
                .arg(sizeText(message.size + m_limits.freeSpaceMargin), sizeText(message.size),
                     sizeText(m_limits.freeSpaceMargin), sizeText(*free)));
        return;
    }
    QDir folder(m_directory);
    if (!folder.exists()) {
        if (!QDir().mkpath(m_directory)) {
            refuse(message.transferID, u"The folder for received files cannot be created."_s);
            return;
        }
        QFile::setPermissions(m_directory, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    removeAbandonedPartialFiles(m_directory);

    Transfer transfer;
    transfer.offeredName = message.name.left(256);
    transfer.baseName = safeFileName(message.name);
    transfer.savedName = uniqueFileName(m_directory, transfer.baseName);
    transfer.size = message.size;
    // A hidden name of its own until the file is whole and verified.
    transfer.file = std::make_unique<QFile>(
        folder.filePath(u".tellwyn-upload-%1.part"_s.arg(QUuid::createUuid().toString(QUuid::Id128))));
    if (!transfer.file->open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)) {
        refuse(message.transferID, u"The file cannot be written: %1"_s.arg(transfer.file->errorString()));
        return;
    }
    transfer.file->setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    // Held until the file is closed: it tells a later agent that this partial file is alive.
    ::flock(transfer.file->handle(), LOCK_EX | LOCK_NB);
    transfer.writer = std::make_unique<FileWriter>(transfer.file->handle());
    log(u"receiving \"%1\" (%2) as \"%3\""_s.arg(transfer.offeredName, sizeText(message.size),
                                                 transfer.savedName),
        u"TRANSFER"_s);
    const QString savedName = transfer.savedName;
    m_transfers.emplace(message.transferID, std::move(transfer));
    m_send(FileAcceptMessage{message.transferID, savedName, m_limits.windowBytes, std::nullopt});
}

void FileTransferReceiver::chunk(const FileChunkMessage& message) {
    const auto found = m_transfers.find(message.transferID);
    if (found == m_transfers.end()) {
        return; // cancelled or failed already; the viewer has been told
    }
    Transfer& transfer = found->second;
    if (message.offset != transfer.received) {
        fail(message.transferID, u"A piece of the file arrived out of order."_s);
        return;
    }
    if (quint64(message.data.size()) > transfer.size - transfer.received) {
        fail(message.transferID, u"More data arrived than the file's announced size."_s);
        return;
    }
    if (!transfer.writer->append(message.data)) {
        fail(message.transferID, transfer.writer->error());
        return;
    }
    transfer.received += quint64(message.data.size());
    if (m_activity) {
        m_activity();
    }
    m_send(FileChunkAckMessage{message.transferID, transfer.received, std::nullopt});
}

void FileTransferReceiver::complete(const FileCompleteMessage& message) {
    const auto found = m_transfers.find(message.transferID);
    if (found == m_transfers.end()) {
        return;
    }
    Transfer& transfer = found->second;
    if (transfer.received != transfer.size) {
        fail(message.transferID,
             u"The file ended after %1 of %2."_s.arg(sizeText(transfer.received), sizeText(transfer.size)));
        return;
    }
    // Every byte is on the disk once the writer has finished.
    const std::optional<QByteArray> digest = transfer.writer->finish();
    if (!digest) {
        fail(message.transferID, transfer.writer->error());
        return;
    }
    if (*digest != message.sha256) {
        fail(message.transferID,
             u"The file arrived damaged (its SHA-256 does not match) and was not kept."_s);
        return;
    }
    transfer.writer.reset();
    transfer.file->close();
    // Linking never replaces a file that took the name meanwhile; then the next free name is tried.
    const QDir folder(m_directory);
    const QByteArray temporary = QFile::encodeName(transfer.file->fileName());
    QString savedName = transfer.savedName;
    bool saved = false;
    for (int attempt = 0; attempt < 1000 && !saved; ++attempt) {
        const QByteArray target = QFile::encodeName(folder.filePath(savedName));
        if (::link(temporary.constData(), target.constData()) == 0) {
            saved = true;
            break;
        }
        if (errno != EEXIST) {
            // No hard links on this file system: a rename after a check is the best left.
            if (!isTaken(folder.filePath(savedName)) &&
                ::rename(temporary.constData(), target.constData()) == 0) {
                saved = true;
                break;
            }
            if (errno != EEXIST && !isTaken(folder.filePath(savedName))) {
                fail(message.transferID,
                     u"The file cannot be saved: %1"_s.arg(QString::fromLocal8Bit(strerror(errno))));
                return;
            }
        }
        savedName = uniqueFileName(m_directory, transfer.baseName);
    }
    if (!saved) {
        fail(message.transferID, u"The file cannot be saved: no free name was found for it."_s);
        return;
    }
    ::unlink(temporary.constData());
    transfer.file.reset();
    log(u"received \"%1\" as \"%2\""_s.arg(transfer.offeredName, savedName), u"TRANSFER"_s);
    const QString id = message.transferID;
    m_transfers.erase(found);
    m_send(FileResultMessage{id, true, savedName, std::nullopt, std::nullopt});
}

} // namespace tellwyn
