#include "file_writer.h"

#include "sha256.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Written bytes are handed to writeback in pieces of this size, and the writer waits for the piece
// before the last, so that no more than about two pieces are ever dirty in the page cache.
constexpr qint64 writebackBytes = 8 * 1024 * 1024;
// Direct writes (past the page cache, whose copy costs more than the disk here) go in whole
// blocks from a buffer aligned for any device.
constexpr qsizetype directBlockBytes = 1024 * 1024;
constexpr std::size_t directAlignment = 4096;

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
    startDirectWrites();
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [&] { return m_stopping || m_finishing || !m_queue.empty(); });
        if (m_stopping || (m_queue.empty() && m_finishing)) {
            break;
        }
        QByteArray data = std::move(m_queue.front());
        m_queue.pop_front();
        lock.unlock();
        hash.addData(data);
        const bool written = write(data.constData(), data.size());
        const int writeError = written ? 0 : errno;
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
        // The last partial block cannot go directly; it goes through the page cache.
        stopDirectWrites();
        int failure = writeAll(m_staging.get(), m_staged) ? 0 : errno;
        if (failure == 0) {
            startWriteback(true);
            failure = ::fdatasync(m_fd) == 0 ? 0 : errno;
        }
        lock.lock();
        if (failure != 0) {
            m_error = u"The file cannot be written: %1"_s.arg(systemError(failure));
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

void FileWriter::startDirectWrites() {
    const int flags = ::fcntl(m_fd, F_GETFL);
    if (flags < 0 || ::fcntl(m_fd, F_SETFL, flags | O_DIRECT) != 0) {
        return; // not on this file system: through the page cache, with early writeback
    }
    m_staging.reset(static_cast<char*>(std::aligned_alloc(directAlignment, directBlockBytes)));
    m_direct = m_staging != nullptr;
    if (!m_direct) {
        stopDirectWrites();
    }
}

void FileWriter::stopDirectWrites() {
    const int flags = ::fcntl(m_fd, F_GETFL);
    if (flags >= 0 && (flags & O_DIRECT) != 0) {
        ::fcntl(m_fd, F_SETFL, flags & ~O_DIRECT);
    }
    m_direct = false;
}

bool FileWriter::write(const char* data, qsizetype size) {
    if (!m_direct) {
        if (!writeAll(data, size)) {
            return false;
        }
        if (m_written - m_writebackStarted >= writebackBytes) {
            startWriteback(false);
        }
        return true;
    }
    while (size > 0) {
        const qsizetype piece = std::min(size, directBlockBytes - m_staged);
        std::memcpy(m_staging.get() + m_staged, data, size_t(piece));
        m_staged += piece;
        data += piece;
        size -= piece;
        if (m_staged == directBlockBytes) {
            const qint64 before = m_written;
            if (!writeAll(m_staging.get(), m_staged)) {
                if (errno != EINVAL) {
                    return false;
                }
                // Direct writes refused after all: the page cache takes the rest of this block
                // and everything after it.
                stopDirectWrites();
                const auto done = qsizetype(m_written - before);
                if (!writeAll(m_staging.get() + done, m_staged - done)) {
                    return false;
                }
            }
            m_staged = 0;
        }
    }
    return true;
}

bool FileWriter::writeAll(const char* data, qsizetype size) {
    while (size > 0) {
        const ssize_t written = ::write(m_fd, data, size_t(size));
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= written;
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
