#pragma once

#include <QString>

namespace tellwyn {

// Shows a file to the user in the desktop's file manager, selected in its folder.
class FileRevealer {
public:
    virtual ~FileRevealer() = default;
    virtual void reveal(const QString& filePath) = 0;
};

} // namespace tellwyn
