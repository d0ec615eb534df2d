#include "package.h"

namespace pnvtest {

namespace {

constexpr std::size_t kTableEntries = 8;
constexpr std::size_t kEntrySize = 12;
constexpr std::size_t kDescriptionSize = 224;

Bytes Word(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

// Filled up with zeros to a field's size.
Bytes Padded(Bytes field, std::size_t size)
{
    if (field.size() > size) Misuse("a field of the package header is too long");
    field.resize(size);
    return field;
}

} // namespace

Bytes Build(const PackageSpec& spec)
{
    Bytes table;
    Bytes contents;
    for (const SubFileSpec& file : spec.subFiles) {
        table = Cat(table, Word(file.type), Word(file.offset.value_or(Len(contents))),
                    Word(file.length.value_or(Len(file.content))));
        contents = Cat(contents, file.content);
    }
    const std::size_t length = packageHeaderSize + contents.size();
    return Cat(Word(spec.reserved),                                            // 0
               Word(spec.headerCrc),                                           // 4
               Word(spec.fileId),                                              // 8
               Word(spec.version),                                             // 12
               Word(spec.subFileCount.value_or(Len(spec.subFiles))),           // 16
               Padded(table, kTableEntries * kEntrySize),                      // 20
               Padded(Text(spec.description), kDescriptionSize),               // 116
               Word(spec.length.value_or(static_cast<std::uint32_t>(length))), // 340
               Word(spec.fileCrc),                                             // 344
               Word(spec.compressType),                                        // 348
               contents);                                                      // 352
}

PackageSpec SignedPackage(const Bytes& payload, const Bytes& cms, const Bytes& crl)
{
    PackageSpec package;
    package.subFiles = {{subfile::payload, payload}, {subfile::cms, cms}, {subfile::crl, crl}};
    return package;
}

} // namespace pnvtest
