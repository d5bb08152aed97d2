#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <vector>

namespace tellwyn {

// Turns the raw return addresses of a process into call-stack lines, reading that process's
// memory map and the symbol tables of the files it maps. Runs outside the crashed process.
//
// One line per frame: index, file name, address, then the demangled function and the offset
// into it, or the file name and the offset into the file when no symbol covers the address.
class StackSymbolizer {
public:
    // `maps` is the text of /proc/<pid>/maps.
    explicit StackSymbolizer(const QByteArray& maps);
    static StackSymbolizer forProcess(std::int64_t pid);

    // Every frame but the first is a return address, except `interrupted`: the instruction at
    // which a signal struck, which is looked up as it is.
    QStringList symbolize(const std::vector<std::uint64_t>& frames, std::uint64_t interrupted = 0);

    // The demangled form of a C++ symbol or type name; the name itself when it is not mangled.
    static QString demangle(const QByteArray& name);

private:
    struct Mapping {
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        std::uint64_t offset = 0;
        QString path;
    };
    struct Segment {
        std::uint64_t fileOffset = 0;
        std::uint64_t fileSize = 0;
        std::uint64_t address = 0;
    };
    struct Symbol {
        std::uint64_t address = 0;
        std::uint64_t size = 0;
        QByteArray name;
    };
    struct Module {
        std::vector<Segment> segments;
        std::vector<Symbol> symbols; // sorted by address
    };

    const Mapping* mappingFor(std::uint64_t address) const;
    const Module& module(const QString& path);
    static Module loadModule(const QString& path);

    std::vector<Mapping> m_mappings;
    QHash<QString, Module> m_modules;
};

} // namespace tellwyn
