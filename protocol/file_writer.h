#pragma once

#include <QByteArray>
#include <QString>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace tellwyn {

// Writes a file and hashes it with SHA-256 on a thread of its own, so that the connection's thread
// only decrypts and decodes. At most `maxQueuedBytes` wait in memory: append() blocks while the
// disk is behind, which leaves further bytes in the socket and slows the sender through TCP.
// Where the file system allows, whole blocks are written past the page cache (O_DIRECT), which
// also puts them on the disk as they go; elsewhere written ranges are handed to the kernel's
// writeback as they complete. Either way the flush at the end only waits for the last few blocks.
class FileWriter {
public:
    static constexpr qsizetype defaultMaxQueuedBytes = 4 * 1024 * 1024;

    // `fd` stays owned by the caller and open until finish() or the destructor returns.
    explicit FileWriter(int fd, qsizetype maxQueuedBytes = defaultMaxQueuedBytes);
    // Stops without flushing: the caller discards the file.
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    // Queues `data`; false once a write has failed (see error()): nothing more is written then.
    bool append(QByteArray data);
    // Waits for every queued byte to be written and on the disk. The SHA-256 of everything written,
    // or nothing when a write or the flush failed.
    std::optional<QByteArray> finish();
    // Why writing failed, in words for the user; empty while it has not.
    QString error() const;

private:
    void run();
    void startDirectWrites();
    void stopDirectWrites();
    bool write(const char* data, qsizetype size);
    bool writeAll(const char* data, qsizetype size);
    void startWriteback(bool finalRange);

    const int m_fd;
    const qsizetype m_maxQueuedBytes;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<QByteArray> m_queue;
    qsizetype m_queuedBytes = 0;
    bool m_finishing = false;
    bool m_stopping = false;
    bool m_done = false;
    QString m_error;
    QByteArray m_digest;
    // Worker-side only.
    struct FreeBuffer {
        void operator()(char* buffer) const { std::free(buffer); }
    };
    std::unique_ptr<char, FreeBuffer> m_staging; // the direct block being filled
    qsizetype m_staged = 0;
    bool m_direct = false;
    qint64 m_written = 0;
    qint64 m_writebackStarted = 0;
    qint64 m_writebackWaited = 0;
    std::thread m_thread;
};

} // namespace tellwyn
