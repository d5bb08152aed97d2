#pragma once

#include <QString>

namespace tellwyn {

// Checks a local account's password with the operating system. Called on a worker thread, one
// check at a time; may take seconds.
class AccountVerifier {
public:
    struct Result {
        bool valid = false;
        QString error; // the system's own description when `valid` is false
    };

    virtual ~AccountVerifier() = default;
    // `remoteHost` is the address the request came from, for the system's own per-host rules
    // (access lists, failure counters, audit).
    virtual Result verifyPassword(const QString& userName, const QString& password,
                                  const QString& remoteHost) = 0;
};

// Overwrites the characters of `text` in place, in every copy that shares them, then empties it.
// For secrets that are done with.
void wipeSecret(QString& text);
void wipeSecret(QByteArray& bytes);

} // namespace tellwyn
