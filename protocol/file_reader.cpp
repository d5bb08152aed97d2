#include "file_reader.h"

#include "sha256.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

FileReader::FileReader(int fd, qint64 size, qsizetype pieceBytes, qsizetype maxQueuedBytes)
    : m_fd(fd), m_size(size), m_pieceBytes(pieceBytes), m_maxQueuedBytes(maxQueuedBytes),
      m_thread([this] { run(); }) {
}

FileReader::~FileReader() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

std::optional<QByteArray> FileReader::next() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return !m_queue.empty() || m_done; });
    if (m_queue.empty()) {
        return std::nullopt;
    }
    QByteArray piece = std::move(m_queue.front());
    m_queue.pop_front();
    m_queuedBytes -= piece.size();
    lock.unlock();
    m_changed.notify_all();
    return piece;
}

QByteArray FileReader::digest() const {
    const std::lock_guard lock(m_mutex);
    return m_digest;
}

QString FileReader::error() const {
    const std::lock_guard lock(m_mutex);
    return m_error;
}

void FileReader::run() {
    Sha256 hash;
    qint64 left = m_size;
    QString failure;
    while (left > 0) {
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock,
                           [&] { return m_stopping || m_queuedBytes + m_pieceBytes <= m_maxQueuedBytes; });
            if (m_stopping) {
                break;
            }
        }
        QByteArray piece(qsizetype(std::min<qint64>(left, m_pieceBytes)), Qt::Uninitialized);
        qsizetype filled = 0;
        while (filled < piece.size()) {
            const ssize_t got = ::read(m_fd, piece.data() + filled, size_t(piece.size() - filled));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                // A file that shrank while it was being read is as unreadable as one that fails.
                failure = got == 0 ? u"the file ended early"_s : QString::fromLocal8Bit(std::strerror(errno));
                break;
            }
            filled += got;
        }
        if (!failure.isEmpty()) {
            break;
        }
        hash.addData(piece);
        left -= piece.size();
        {
            const std::lock_guard lock(m_mutex);
            m_queuedBytes += piece.size();
            m_queue.push_back(std::move(piece));
        }
        m_changed.notify_all();
    }
    const std::lock_guard lock(m_mutex);
    m_error = failure;
    if (failure.isEmpty() && left == 0) {
        m_digest = hash.result();
    }
    m_done = true;
    m_changed.notify_all();
}

} // namespace tellwyn
