#pragma once

#include <QByteArray>
#include <QString>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

namespace tellwyn {

// Reads a file in pieces and hashes it with SHA-256 on a thread of its own, staying at most
// `maxQueuedBytes` ahead of the caller, so that reading from the disk and hashing overlap with
// encrypting and sending.
class FileReader {
public:
    // `fd` stays owned by the caller and open until the destructor returns; reading starts at its
    // current position and ends after `size` bytes.
    FileReader(int fd, qint64 size, qsizetype pieceBytes, qsizetype maxQueuedBytes);
    ~FileReader();
    FileReader(const FileReader&) = delete;
    FileReader& operator=(const FileReader&) = delete;

    // The next piece, waiting for it if need be; nothing after the last piece or a failed read.
    std::optional<QByteArray> next();
    // The SHA-256 of every piece, once next() has returned nothing; empty after a failed read.
    QByteArray digest() const;
    // Why reading failed, in the system's words; empty while it has not.
    QString error() const;

private:
    void run();

    const int m_fd;
    const qint64 m_size;
    const qsizetype m_pieceBytes;
    const qsizetype m_maxQueuedBytes;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<QByteArray> m_queue;
    qsizetype m_queuedBytes = 0;
    bool m_stopping = false;
    bool m_done = false;
    QString m_error;
    QByteArray m_digest;
    std::thread m_thread;
};

} // namespace tellwyn
