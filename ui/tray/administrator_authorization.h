#pragma once

#include <QObject>
#include <QString>
#include <functional>

namespace tellwyn {

// Asks the operating system whether an administrator allows opening the menu lock without its
// password. The answer arrives later on the main thread; a denied, cancelled or failed request
// answers false.
class AdministratorAuthorization {
public:
    virtual ~AdministratorAuthorization() = default;
    // `done` is not called once `context` is gone.
    virtual void request(QObject* context, std::function<void(bool granted)> done) = 0;
};

// polkit's CheckAuthorization on the system bus, with user interaction allowed, so that the
// desktop's polkit agent asks for an administrator's password.
class PolkitAuthorization final : public AdministratorAuthorization {
public:
    static constexpr char actionId[] = "com.brevane.tellwynagent.unlock";

    void request(QObject* context, std::function<void(bool granted)> done) override;
};

} // namespace tellwyn
