#include "stack_symbolizer.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <elf.h>
#include <memory>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

template <typename T> bool readAt(const uchar* data, qint64 size, std::uint64_t offset, T& out) {
    if (offset > static_cast<std::uint64_t>(size) || static_cast<std::uint64_t>(size) - offset < sizeof(T)) {
        return false;
    }
    std::memcpy(&out, data + offset, sizeof(T));
    return true;
}

} // namespace

StackSymbolizer::StackSymbolizer(const QByteArray& maps) {
    // start-end perms offset dev inode path
    for (const QByteArray& line : maps.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 6 || !fields[5].startsWith('/')) {
            continue;
        }
        const QList<QByteArray> range = fields[0].split('-');
        if (range.size() != 2) {
            continue;
        }
        Mapping mapping;
        bool ok[3] = {};
        mapping.start = range[0].toULongLong(&ok[0], 16);
        mapping.end = range[1].toULongLong(&ok[1], 16);
        mapping.offset = fields[2].toULongLong(&ok[2], 16);
        if (!ok[0] || !ok[1] || !ok[2]) {
            continue;
        }
        // The path is the rest of the line; a replaced file is marked " (deleted)".
        QByteArray path = fields.mid(5).join(' ');
        if (path.endsWith(" (deleted)")) {
            path.chop(10);
        }
        mapping.path = QString::fromLocal8Bit(path);
        m_mappings.push_back(mapping);
    }
}

StackSymbolizer StackSymbolizer::forProcess(std::int64_t pid) {
    QFile maps(u"/proc/%1/maps"_s.arg(pid));
    if (!maps.open(QIODevice::ReadOnly)) {
        return StackSymbolizer(QByteArray());
    }
    return StackSymbolizer(maps.readAll());
}

QString StackSymbolizer::demangle(const QByteArray& name) {
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(name.constData(), nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled ? QString::fromUtf8(demangled.get()) : QString::fromUtf8(name);
}

const StackSymbolizer::Mapping* StackSymbolizer::mappingFor(std::uint64_t address) const {
    for (const Mapping& mapping : m_mappings) {
        if (address >= mapping.start && address < mapping.end) {
            return &mapping;
        }
    }
    return nullptr;
}

const StackSymbolizer::Module& StackSymbolizer::module(const QString& path) {
    auto found = m_modules.find(path);
    if (found == m_modules.end()) {
        found = m_modules.insert(path, loadModule(path));
    }
    return *found;
}

StackSymbolizer::Module StackSymbolizer::loadModule(const QString& path) {
    Module module;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return module;
    }
    const qint64 size = file.size();
    const uchar* data = file.map(0, size);
    Elf64_Ehdr header{};
    if (data == nullptr || !readAt(data, size, 0, header) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) {
        return module;
    }
    for (std::uint64_t i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr program{};
        if (readAt(data, size, header.e_phoff + i * header.e_phentsize, program) &&
            program.p_type == PT_LOAD) {
            module.segments.push_back({program.p_offset, program.p_filesz, program.p_vaddr});
        }
    }
    // Both tables: the full one of an unstripped file and the exported one of a stripped library.
    for (std::uint64_t i = 0; i < header.e_shnum; ++i) {
        Elf64_Shdr section{};
        if (!readAt(data, size, header.e_shoff + i * header.e_shentsize, section) ||
            (section.sh_type != SHT_SYMTAB && section.sh_type != SHT_DYNSYM) || section.sh_entsize == 0) {
            continue;
        }
        Elf64_Shdr strings{};
        if (!readAt(data, size, header.e_shoff + std::uint64_t{section.sh_link} * header.e_shentsize,
                    strings) ||
            strings.sh_offset > static_cast<std::uint64_t>(size)) {
            continue;
        }
        const std::uint64_t stringsEnd =
            std::min<std::uint64_t>(strings.sh_offset + strings.sh_size, static_cast<std::uint64_t>(size));
        for (std::uint64_t entry = 0; entry < section.sh_size / section.sh_entsize; ++entry) {
            Elf64_Sym symbol{};
            if (!readAt(data, size, section.sh_offset + entry * section.sh_entsize, symbol)) {
                break;
            }
            const unsigned type = ELF64_ST_TYPE(symbol.st_info);
            if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_value == 0 ||
                strings.sh_offset + symbol.st_name >= stringsEnd) {
                continue;
            }
            const char* name = reinterpret_cast<const char*>(data + strings.sh_offset + symbol.st_name);
            const auto length = static_cast<qsizetype>(
                strnlen(name, static_cast<size_t>(stringsEnd - strings.sh_offset - symbol.st_name)));
            module.symbols.push_back({symbol.st_value, symbol.st_size, QByteArray(name, length)});
        }
    }
    std::sort(module.symbols.begin(), module.symbols.end(),
              [](const Symbol& a, const Symbol& b) { return a.address < b.address; });
    return module;
}

QStringList StackSymbolizer::symbolize(const std::vector<std::uint64_t>& frames, std::uint64_t interrupted) {
    QStringList lines;
    for (std::size_t index = 0; index < frames.size(); ++index) {
        const std::uint64_t address = frames[index];
        // A return address points just past its call; the call itself belongs to the caller.
        const bool returnAddress = index > 0 && address > 0 && address != interrupted;
        const std::uint64_t lookup = returnAddress ? address - 1 : address;
        const Mapping* mapping = mappingFor(lookup);
        QString file = u"???"_s;
        QString where = u"0x%1"_s.arg(static_cast<qulonglong>(address), 0, 16);
        if (mapping != nullptr) {
            file = QFileInfo(mapping->path).fileName();
            const std::uint64_t fileOffset = lookup - mapping->start + mapping->offset;
            where = u"%1 + %2"_s.arg(file).arg(address - mapping->start + mapping->offset);
            const Module& owner = module(mapping->path);
            for (const Segment& segment : owner.segments) {
                if (fileOffset < segment.fileOffset || fileOffset >= segment.fileOffset + segment.fileSize) {
                    continue;
                }
                const std::uint64_t virtualAddress = fileOffset - segment.fileOffset + segment.address;
                auto next =
                    std::upper_bound(owner.symbols.begin(), owner.symbols.end(), virtualAddress,
                                     [](std::uint64_t value, const Symbol& s) { return value < s.address; });
                // The closest symbol at or below the address, when it covers it.
                while (next != owner.symbols.begin()) {
                    --next;
                    if (virtualAddress < next->address + std::max<std::uint64_t>(next->size, 1)) {
                        where = u"%1 + %2"_s.arg(demangle(next->name))
                                    .arg(virtualAddress - next->address + (address - lookup));
                        break;
                    }
                    if (next->size != 0) {
                        break;
                    }
                }
                break;
            }
        }
        lines.append(u"%1%2 0x%3 %4"_s.arg(static_cast<qulonglong>(index), -4)
                         .arg(file, -32)
                         .arg(static_cast<qulonglong>(address), 16, 16, QChar(u'0'))
                         .arg(where));
    }
    return lines;
}

} // namespace tellwyn
