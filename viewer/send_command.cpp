// tellwyn send: upload files into the agent's folder for received files, with a progress bar.

#include "file_reader.h"
#include "hlvp.h"
#include "message_text.h"
#include "viewer_command.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QUuid>
#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr qint64 chunkBytes = 256 * 1024;
constexpr qsizetype readAheadBytes = 4 * 1024 * 1024;

QString sizeText(double bytes) {
    return QLocale::c().formattedDataSize(qint64(bytes), 1, QLocale::DataSizeIecFormat);
}

QString durationText(double seconds) {
    const auto total = qint64(seconds + 0.5);
    return total >= 3600 ? u"%1:%2:%3"_s.arg(total / 3600)
                               .arg(total / 60 % 60, 2, 10, QChar(u'0'))
                               .arg(total % 60, 2, 10, QChar(u'0'))
                         : u"%1:%2"_s.arg(total / 60).arg(total % 60, 2, 10, QChar(u'0'));
}

// Sends the files one after the other, keeping at most the agent's window unacknowledged.
class Upload : public QObject {
public:
    Upload(ViewerSession& session, QStringList paths, QTextStream& out, QTextStream& err)
        : m_session(session), m_paths(std::move(paths)), m_out(out), m_err(err),
          m_showProgress(isatty(fileno(stderr)) != 0) {
        connect(&session, &ViewerSession::messageReceived, this, &Upload::onMessage);
    }

    void start() { next(); }

private:
    void next() {
        if (m_index >= m_paths.size()) {
            m_session.finish(m_failures == 0 ? exitOk : exitProtocolError);
            return;
        }
        m_reader.reset(); // before its file closes
        const QString path = m_paths.at(m_index);
        m_file = std::make_unique<QFile>(path);
        if (!m_file->open(QIODevice::ReadOnly)) {
            m_err << u"tellwyn: cannot read %1: %2"_s.arg(path, m_file->errorString()) << Qt::endl;
            ++m_failures;
            ++m_index;
            next();
            return;
        }
        m_id = QUuid::createUuid().toString(QUuid::Id128).left(16);
        m_size = m_file->size();
        m_sent = 0;
        m_acknowledged = 0;
        m_window = 0;
        m_completeSent = false;
        m_reader = std::make_unique<FileReader>(m_file->handle(), m_size, chunkBytes, readAheadBytes);
        m_clock.start();
        m_session.send(FileOfferMessage{m_id, QFileInfo(path).fileName(), quint64(m_size), std::nullopt});
    }

    void pump() {
        while (m_sent < m_size && m_sent - m_acknowledged + chunkBytes <= qint64(m_window)) {
            const std::optional<QByteArray> data = m_reader->next();
            if (!data) {
                m_session.send(FileCancelMessage{m_id, u"The file could not be read."_s, std::nullopt});
                fail(u"cannot read %1: %2"_s.arg(m_paths.at(m_index), m_reader->error()));
                return;
            }
            m_session.send(FileChunkMessage{m_id, quint64(m_sent), *data, std::nullopt});
            m_sent += data->size();
        }
        if (m_sent == m_size && !m_completeSent) {
            m_completeSent = true;
            m_session.send(FileCompleteMessage{m_id, m_reader->digest(), std::nullopt});
        }
    }

    void progress(bool done) {
        if (!m_showProgress && !done) {
            return;
        }
        const double seconds = std::max(0.001, double(m_clock.elapsed()) / 1000.0);
        const double rate = double(m_acknowledged) / seconds;
        const double percent = m_size > 0 ? 100.0 * double(m_acknowledged) / double(m_size) : 100.0;
        const int filled = int(percent / 5.0);
        const QString bar = QString(filled, u'#') + QString(20 - filled, u'-');
        const QString left = rate > 0 ? durationText(double(m_size - m_acknowledged) / rate) : u"--:--"_s;
        m_err << u"\r%1 [%2] %3% %4 / %5 %6/s %7 left "_s.arg(QFileInfo(m_paths.at(m_index)).fileName(), bar)
                     .arg(percent, 3, 'f', 0)
                     .arg(sizeText(double(m_acknowledged)), sizeText(double(m_size)), sizeText(rate), left);
        if (done) {
            m_err << u'\n';
        }
        m_err.flush();
    }

    void fail(const QString& reason) {
        m_err << u"tellwyn: %1 was not sent: %2"_s.arg(m_paths.at(m_index), agentText(reason)) << Qt::endl;
        ++m_failures;
        ++m_index;
        next();
    }

    void onMessage(const HLVPMessage& message) {
        if (const auto* accept = std::get_if<FileAcceptMessage>(&message);
            accept && accept->transferID == m_id) {
            m_window = std::max<quint32>(accept->windowBytes, quint32(chunkBytes));
            pump();
        } else if (const auto* ack = std::get_if<FileChunkAckMessage>(&message);
                   ack && ack->transferID == m_id) {
            m_acknowledged = qint64(ack->receivedBytes);
            progress(false);
            pump();
        } else if (const auto* result = std::get_if<FileResultMessage>(&message);
                   result && result->transferID == m_id) {
            if (result->success) {
                m_acknowledged = m_size;
                progress(true);
                m_out << u"%1 -> %2"_s.arg(m_paths.at(m_index),
                                           agentText(result->savedName.value_or(QString())))
                      << Qt::endl;
                ++m_index;
                next();
            } else {
                if (m_showProgress) {
                    m_err << u'\n';
                }
                fail(result->errorMessage.value_or(u"refused"_s));
            }
        } else if (const auto* cancel = std::get_if<FileCancelMessage>(&message);
                   cancel && cancel->transferID == m_id) {
            fail(cancel->reason);
        } else if (const auto* refusal = std::get_if<ErrorMessage>(&message)) {
            m_err << u"tellwyn: the agent refused: %1"_s.arg(agentText(refusal->message)) << Qt::endl;
            m_session.finish(exitProtocolError);
        }
    }

    ViewerSession& m_session;
    QStringList m_paths;
    QTextStream& m_out;
    QTextStream& m_err;
    bool m_showProgress;
    qsizetype m_index = 0;
    int m_failures = 0;
    std::unique_ptr<QFile> m_file;
    std::unique_ptr<FileReader> m_reader; // reads and hashes ahead of what has been sent
    QString m_id;
    qint64 m_size = 0;
    qint64 m_sent = 0;
    qint64 m_acknowledged = 0;
    quint32 m_window = 0;
    bool m_completeSent = false;
    QElapsedTimer m_clock;
};

} // namespace

int sendCommand(const QStringList& arguments, QTextStream& out, QTextStream& err,
                const ViewerPlatform& platform) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Uploads FILEs into the folder for received files on the agent's computer (\"Tellwyn\" in the "
        u"Downloads folder), one after the other, and prints the name each was saved under. Signs in first, "
        u"as "
        u"'tellwyn stats' does."_s);
    CommonOptions common;
    SignInOptions signIn;
    parser.addOptions({common.help, common.name, common.knownAgents, signIn.user, signIn.passwordStdin});
    parser.addPositionalArgument(u"HOST[:PORT]"_s, u"Where the agent listens."_s);
    parser.addPositionalArgument(u"FILE"_s, u"Files to send."_s, u"FILE..."_s);
    if (const std::optional<int> finished =
            parseCommandLine(parser, arguments, common, u"send"_s, out, err)) {
        return *finished;
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.size() < 2) {
        return usageError(err, u"send"_s, u"give HOST[:PORT] and at least one FILE"_s);
    }
    for (const QString& path : positional.mid(1)) {
        if (!QFileInfo(path).isFile()) {
            err << u"tellwyn: %1 is not a readable file"_s.arg(path) << Qt::endl;
            return exitFailure;
        }
    }
    QString error;
    const auto target = parseTarget(positional.at(0), parser, common, platform, &error);
    if (!target) {
        return usageError(err, u"send"_s, error);
    }
    int exitCode = exitOk;
    auto credentials = readCredentials(parser, signIn, *target, u"send"_s, err, &exitCode);
    if (!credentials) {
        return exitCode;
    }
    ViewerSession session(target->address, target->name, target->knownAgents, out, err);
    Upload upload(session, positional.mid(1), out, err);
    signInWhenReady(
        session, std::move(*credentials), [&upload] { upload.start(); }, err);
    return runSession(session, platform);
}

} // namespace tellwyn
