#include "secret_service_credential_store.h"

#include "alternate_signal_stack.h"

#include <QDeadlineTimer>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>
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

// Runs the job that `makeJob` creates to its end on the keyring thread, and waits for it there
// without running the caller's event loop: a nested loop here would let the agent's queued work
// run in the middle of the step that asked for the password. False when it did not finish in time.
template <typename JobType, typename Result>
bool runToEnd(std::function<JobType*()> makeJob, std::function<Result(JobType&)> read,
              std::chrono::milliseconds timeout, Result& result) {
    struct Outcome {
        QMutex lock;
        QWaitCondition done;
        std::optional<Result> value;
    };
    auto outcome = std::make_shared<Outcome>();
    QMetaObject::invokeMethod(
        keyringThreadContext(),
        [makeJob = std::move(makeJob), read = std::move(read), outcome] {
            JobType* job = makeJob();
            QObject::connect(job, &QKeychain::Job::finished, job, [job, read, outcome] {
                Result value = read(*job);
                QMutexLocker locker(&outcome->lock);
                outcome->value = std::move(value);
                outcome->done.wakeAll();
            });
            job->setAutoDelete(true);
            job->start();
        },
        Qt::QueuedConnection);
    QMutexLocker locker(&outcome->lock);
    if (!outcome->value && !outcome->done.wait(&outcome->lock, QDeadlineTimer(timeout))) {
        return false;
    }
    result = std::move(*outcome->value);
    return true;
}

} // namespace

SecretServiceCredentialStore::SecretServiceCredentialStore(std::chrono::milliseconds timeout)
    : m_timeout(timeout) {
}

HLVPCredentialStore::Lookup SecretServiceCredentialStore::agentLockPassword() {
    Lookup lookup;
    const bool answered = runToEnd<QKeychain::ReadPasswordJob, Lookup>(
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
        m_timeout, lookup);
    if (!answered) {
        return {std::nullopt, u"The keyring did not answer."_s};
    }
    return lookup;
}

std::optional<QString> SecretServiceCredentialStore::saveAgentLockPassword(const QString& password) {
    std::optional<QString> error;
    const bool answered = runToEnd<QKeychain::WritePasswordJob, std::optional<QString>>(
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
        m_timeout, error);
    if (!answered) {
        return u"The keyring did not answer."_s;
    }
    return error;
}

} // namespace tellwyn
