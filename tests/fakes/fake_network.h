#pragma once

// A network access manager whose replies the test writes by hand: status, headers, body pieces,
// redirects and errors arrive exactly when the test says so.

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <cstring>
#include <functional>

namespace tellwyn::testing {

class FakeReply final : public QNetworkReply {
public:
    FakeReply(const QNetworkRequest& request, QObject* parent) : QNetworkReply(parent) {
        setRequest(request);
        setUrl(request.url());
        setOperation(QNetworkAccessManager::GetOperation);
        open(QIODevice::ReadOnly);
    }

    // The response head: status and headers, announced as the platform would.
    void respond(int status, const QList<std::pair<QByteArray, QByteArray>>& headers = {}) {
        setAttribute(QNetworkRequest::HttpStatusCodeAttribute, status);
        for (const auto& [name, value] : headers) {
            setRawHeader(name, value);
        }
        Q_EMIT metaDataChanged();
    }
    void sendBody(const QByteArray& bytes, qint64 total = -1) {
        m_body.append(bytes);
        m_received += bytes.size();
        Q_EMIT readyRead();
        Q_EMIT downloadProgress(m_received, total);
    }
    void redirect(const QUrl& target) { Q_EMIT redirected(target); }
    void finish(NetworkError error = NoError, const QString& text = {}) {
        if (isFinished()) {
            return;
        }
        if (error != NoError) {
            setError(error, text);
            Q_EMIT errorOccurred(error);
        }
        setFinished(true);
        Q_EMIT finished();
    }

    void abort() override {
        ++abortCount;
        finish(OperationCanceledError, QStringLiteral("Operation canceled"));
    }
    qint64 bytesAvailable() const override { return m_body.size() + QNetworkReply::bytesAvailable(); }
    bool isSequential() const override { return true; }

    int abortCount = 0;
    int redirectsAllowed = 0;

protected:
    qint64 readData(char* data, qint64 maxSize) override {
        const qint64 n = std::min<qint64>(maxSize, m_body.size());
        std::memcpy(data, m_body.constData(), static_cast<size_t>(n));
        m_body.remove(0, static_cast<qsizetype>(n));
        return n;
    }

private:
    QByteArray m_body;
    qint64 m_received = 0;
};

class FakeNetworkAccessManager final : public QNetworkAccessManager {
public:
    // Called for every new reply, e.g. to script an answer.
    std::function<void(FakeReply&)> onRequest;
    QList<QPointer<FakeReply>> replies;

    FakeReply* lastReply() const { return replies.isEmpty() ? nullptr : replies.constLast().data(); }

protected:
    QNetworkReply* createRequest(Operation, const QNetworkRequest& request, QIODevice*) override {
        auto* reply = new FakeReply(request, this);
        QObject::connect(reply, &QNetworkReply::redirectAllowed, reply,
                         [reply] { ++reply->redirectsAllowed; });
        replies.append(reply);
        if (onRequest) {
            onRequest(*reply);
        }
        return reply;
    }
};

} // namespace tellwyn::testing
