#include "file_writer.h"

#include "sha256.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Written bytes are handed to writeback in pieces of this size, and the writer waits for the piece
// before the last, so that no more than about two pieces are ever dirty in the page cache.
constexpr qint64 writebackBytes = 8 * 1024 * 1024;

QString systemError(int error) {
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

FileWriter::FileWriter(int fd, qsizetype maxQueuedBytes)
    : m_fd(fd), m_maxQueuedBytes(maxQueuedBytes), m_thread([this] { run(); }) {
}

FileWriter::~FileWriter() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

bool FileWriter::append(QByteArray data) {
    std::unique_lock lock(m_mutex);
    // A piece larger than the whole queue still goes in alone.
    m_changed.wait(lock, [&] {
        return !m_error.isEmpty() || m_queuedBytes == 0 || m_queuedBytes + data.size() <= m_maxQueuedBytes;
    });
    if (!m_error.isEmpty()) {
        return false;
    }
    m_queuedBytes += data.size();
    m_queue.push_back(std::move(data));
    lock.unlock();
    m_changed.notify_all();
    return true;
}

std::optional<QByteArray> FileWriter::finish() {
    std::unique_lock lock(m_mutex);
    m_finishing = true;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return m_done; });
    if (!m_error.isEmpty()) {
        return std::nullopt;
    }
    return m_digest;
}

QString FileWriter::error() const {
    const std::lock_guard lock(m_mutex);
    return m_error;
}

void FileWriter::run() {
    Sha256 hash;
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [&] { return m_stopping || m_finishing || !m_queue.empty(); });
        if (m_stopping || (m_queue.empty() && m_finishing)) {
            break;
        }
        QByteArray data = std::move(m_queue.front());
        m_queue.pop_front();
        lock.unlock();
        const bool written = writeAll(data);
        const int writeError = written ? 0 : errno;
        if (written) {
            hash.addData(data);
            if (m_written - m_writebackStarted >= writebackBytes) {
                startWriteback(false);
            }
        }
        lock.lock();
        m_queuedBytes -= data.size();
        if (!written) {
            m_error = u"The file cannot be written: %1"_s.arg(systemError(writeError));
            m_queue.clear();
            m_queuedBytes = 0;
            m_changed.notify_all();
            break;
        }
        m_changed.notify_all();
    }
    if (m_finishing && !m_stopping && m_error.isEmpty()) {
        lock.unlock();
        startWriteback(true);
        const int flushed = ::fdatasync(m_fd) == 0 ? 0 : errno;
        lock.lock();
        if (flushed != 0) {
            m_error = u"The file cannot be written: %1"_s.arg(systemError(flushed));
        } else {
            m_digest = hash.result();
        }
    }
    // finish() may wait on a writer that failed or was stopped before it was called.
    for (;;) {
        if (m_finishing || m_stopping) {
            m_done = true;
            m_changed.notify_all();
            return;
        }
        m_changed.wait(lock);
    }
}

bool FileWriter::writeAll(const QByteArray& data) {
    const char* next = data.constData();
    qsizetype left = data.size();
    while (left > 0) {
        const ssize_t written = ::write(m_fd, next, size_t(left));
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        next += written;
        left -= written;
        m_written += written;
    }
    return true;
}

void FileWriter::startWriteback(bool finalRange) {
    // Best effort: a file system without it (or an error here) only leaves more for fdatasync.
    if (m_written > m_writebackStarted) {
        ::sync_file_range(m_fd, m_writebackStarted, m_written - m_writebackStarted, SYNC_FILE_RANGE_WRITE);
    }
    if (!finalRange && m_writebackStarted > m_writebackWaited) {
        ::sync_file_range(m_fd, m_writebackWaited, m_writebackStarted - m_writebackWaited,
                          SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
        m_writebackWaited = m_writebackStarted;
    }
    m_writebackStarted = m_written;
}

} // namespace tellwyn
