#include "desktop_module.h"

#include <dlfcn.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace tellwyn {

namespace {

constexpr const char* moduleFileName = "tellwyn-agent-desktop.so";

std::string programDirectory() {
    std::vector<char> path(4096);
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length <= 0) {
        return {};
    }
    const std::string program(path.data(), size_t(length));
    return program.substr(0, program.rfind('/'));
}

} // namespace

DesktopModule* loadDesktopModule(QString* error) {
    static DesktopModule* loaded = nullptr;
    if (loaded != nullptr) {
        return loaded;
    }
    const std::string directory = programDirectory();
    QString failures;
    for (const std::string& candidate :
         {directory + '/' + moduleFileName, directory + "/../lib/tellwyn-agent/" + moduleFileName}) {
        if (::access(candidate.c_str(), R_OK) != 0) {
            continue;
        }
        // Never unloaded: Qt's application and plugins live in the libraries it brings.
        void* handle = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (handle == nullptr) {
            failures += QString::fromLocal8Bit(::dlerror()) + u'\n';
            continue;
        }
        using Entry = DesktopModule* (*)();
        const auto entry = reinterpret_cast<Entry>(::dlsym(handle, "tellwynDesktopModule"));
        if (entry == nullptr) {
            failures += QString::fromLocal8Bit(::dlerror()) + u'\n';
            continue;
        }
        loaded = entry();
        return loaded;
    }
    if (error != nullptr) {
        *error = failures.isEmpty() ? QString::fromLatin1("the desktop module %1 is not installed")
                                          .arg(QLatin1String(moduleFileName))
                                    : failures.trimmed();
    }
    return nullptr;
}

} // namespace tellwyn
