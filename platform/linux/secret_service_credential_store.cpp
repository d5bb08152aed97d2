#include "secret_service_credential_store.h"

#include "alternate_signal_stack.h"

#include <QThread>
#include <functional>
#include <memory>
#include <optional>
#include <qt6keychain/keychain.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

const QString serviceName = u"TellwynAgent"_s;
const QString lockPasswordKey = u"agent-ui-lock"_s;

// The one thread that talks to the keyring, for the whole process: the keyring library binds its
// connection to the first thread's main context, so every later call must come from there too.
QObject* keyringThreadContext() {
    static QObject* context = [] {
        auto* thread = new QThread;
        thread->setObjectName(u"org.tellwyn.agent.keyring"_s);
        auto* object = new QObject;
        object->moveToThread(thread);
        thread->start();
        QMetaObject::invokeMethod(object, &ensureAlternateSignalStack, Qt::QueuedConnection);
        return object;
    }();
    return context;
}

// Starts the job that `makeJob` creates on the keyring thread and returns at once; `read` turns
// the finished job into the answer, which `deliver` receives on `context`'s thread. The relay is
// made here, on the caller's thread, while `context` surely lives: its deletion on the keyring
// thread carries the answer over a queued connection, which Qt drops if `context` has gone.
template <typename JobType, typename Result>
void startJob(std::function<JobType*()> makeJob, std::function<Result(JobType&)> read, QObject* context,
              std::function<void(const Result&)> deliver) {
    auto answer = std::make_shared<std::optional<Result>>();
    auto* relay = new QObject;
    QObject::connect(relay, &QObject::destroyed, context,
                     [answer, deliver = std::move(deliver)] { deliver(**answer); });
    QObject* keyring = keyringThreadContext();
    relay->moveToThread(keyring->thread());
    QMetaObject::invokeMethod(
        keyring,
        [makeJob = std::move(makeJob), read = std::move(read), answer, relay] {
            JobType* job = makeJob();
            QObject::connect(job, &QKeychain::Job::finished, relay, [job, read, answer, relay] {
                *answer = read(*job);
                relay->deleteLater();
            });
            job->setAutoDelete(true);
            job->start();
        },
        Qt::QueuedConnection);
}

} // namespace

void SecretServiceCredentialStore::agentLockPassword(QObject* context, LookupHandler done) {
    startJob<QKeychain::ReadPasswordJob, Lookup>(
        [] {
            auto* job = new QKeychain::ReadPasswordJob(serviceName);
            job->setKey(lockPasswordKey);
            job->setInsecureFallback(false);
            return job;
        },
        [](QKeychain::ReadPasswordJob& job) {
            if (job.error() == QKeychain::EntryNotFound) {
                return Lookup{std::nullopt, std::nullopt};
            }
            if (job.error() != QKeychain::NoError) {
                return Lookup{std::nullopt, job.errorString()};
            }
            return Lookup{job.textData(), std::nullopt};
        },
        context, std::move(done));
}

void SecretServiceCredentialStore::saveAgentLockPassword(const QString& password, QObject* context,
                                                         SaveHandler done) {
    startJob<QKeychain::WritePasswordJob, std::optional<QString>>(
        [password] {
            auto* job = new QKeychain::WritePasswordJob(serviceName);
            job->setKey(lockPasswordKey);
            job->setInsecureFallback(false);
            job->setTextData(password);
            return job;
        },
        [](QKeychain::WritePasswordJob& job) {
            return job.error() != QKeychain::NoError ? std::optional<QString>(job.errorString())
                                                     : std::nullopt;
        },
        context, std::move(done));
}

} // namespace tellwyn
