// pkgtool pack, unpack and list.
#include "commands.h"
#include "container.h"
#include "error.h"
#include "forecast.h"
#include "openssl.h"
#include "progress.h"
#include "requirements.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

namespace pkgtool {

namespace {

// ---- pack ----

struct PackOptions {
    std::string payload;
    std::string cms;
    std::vector<std::string> crls;
    std::string output;
    Existing existing = Existing::Refuse;
    Header header{};
    std::string description;
    std::optional<std::uint32_t> count;
    std::optional<std::uint32_t> length;
    bool isUnsigned = false;
    bool unchecked = false;
    ForecastOptions forecast;
};

void requireSubFiles(const PackOptions& options, const std::vector<SubFile>& subFiles, const Bytes& signature,
                     const Bytes& crls)
{
    requireReadable(packageLength(subFiles));
    if (options.isUnsigned) {
        if (subFiles.size() != 1) throw UserError("an unsigned package holds only a payload");
        return;
    }
    if (subFiles.size() != 3) {
        throw UserError(
            "a signed package needs --cms and --crl",
            "a package of one sub-file is accepted by every device without a check; if that is intended, say "
            "--unsigned");
    }
    if (subFiles[0].content.size == 0)
        throw Refusal(options.payload + " is empty, and the checker refuses an empty payload");
    requireSignature(signature, subFiles[0].content, options.cms);
    requireCrls(crls, CLI::detail::join(options.crls, ", "));
}

void pack(const PackOptions& options)
{
    const MappedFile image(options.payload);
    const Bytes signature = options.cms.empty() ? Bytes() : readFile(options.cms);
    const Bytes crls = readCrlFiles(options.crls, !options.unchecked);
    std::vector<SubFile> subFiles{{SUB_FILE_PAYLOAD, image.content()}};
    if (!options.cms.empty()) subFiles.push_back({SUB_FILE_CMS, signature});
    if (!options.crls.empty()) subFiles.push_back({SUB_FILE_CRL, crls});
    if (!options.unchecked) requireSubFiles(options, subFiles, signature, crls);

    Header header = options.header;
    if (options.description.size() > sizeof header.strDescription) {
        throw UserError("the description is longer than " + std::to_string(sizeof header.strDescription) + " bytes");
    }
    std::copy(options.description.begin(), options.description.end(), header.strDescription);
    header.ulSubFileNum = options.count.value_or(static_cast<std::uint32_t>(subFiles.size()));
    header.ulLength = options.length.value_or(packageLength(subFiles));
    OutputFile package(options.output, options.existing);
    const Bytes digest = [&] {
        Progress progress("packing " + options.payload, packageLength(subFiles) + image.content().size);
        const Done done = [&](std::size_t octets) { progress.advance(octets); };
        package.write(encodeHeader(header, subFiles), done);
        for (const SubFile& subFile : subFiles) package.write(subFile.content, done);
        image.requireUnchanged();
        return digestOf(EVP_sha256(), image.content(), done);
    }();
    image.forget(); // the package needs as much memory again
    if (options.forecast.check || !options.unchecked) foretell(options.forecast, package);
    package.commit();
    if (isStandardOutput(options.output)) return; // which gets only the package
    printf("packed %u octets, SHA256 of the payload %s\n", packageLength(subFiles),
           hexText(digest.data(), digest.size()).c_str());
}

// ---- unpack and list ----

void unpack(const std::string& path, const std::string& directory, Existing existing)
{
    const MappedFile file(path);
    const ByteView package = file.content();
    const std::vector<SSubFileInfo_S> entries = entriesOf(readHeader(path, package));
    const auto outside = [&](const SSubFileInfo_S& entry) { return !isInside(entry, package); };
    if (std::any_of(entries.begin(), entries.end(), outside)) {
        throw UserError(path + ": a sub-file lies outside the package", "pkgtool list shows which");
    }
    std::error_code failed;
    std::filesystem::create_directories(directory, failed);
    if (failed) throw UserError("cannot make " + directory + ": " + failed.message());
    const auto nameOf = [&](std::size_t i) {
        return directory + "/" + std::to_string(i + 1) + "-" + typeName(entries[i].ulSubFileID);
    };
    for (std::size_t i = 0; i < entries.size(); ++i) {
        // The user did not choose these names, so none may lead out of the directory.
        if (std::filesystem::is_symlink(nameOf(i), failed))
            throw UserError("cannot write " + nameOf(i) + ": it is a link");
        requireWritable(nameOf(i), existing);
    }
    for (std::size_t i = 0; i < entries.size(); ++i) writeFile(nameOf(i), viewOf(entries[i], package), existing);
    file.requireUnchanged();
}

void list(const std::string& path)
{
    const MappedFile package(path);
    printTable(readHeader(path, package.content()), package.content());
}

} // namespace

void addPackCommand(CLI::App& app)
{
    const auto options = std::make_shared<PackOptions>();
    CLI::App* const command = app.add_subcommand("pack", "Put payload, signature and CRLs into a package");
    command->add_option("--payload", options->payload, "the image; - is standard input")->required();
    command->add_option("--cms", options->cms, "its signature, DER or PEM");
    command->add_option("--crl", options->crls, "CRLs, DER or PEM: one of each CA; may be repeated")
        ->allow_extra_args(false);
    command->add_option("-o,--output", options->output, "the package; - is standard output")->required();
    addForceFlag(command, options->existing);
    command->add_flag("--unsigned", options->isUnsigned, "pack a payload alone: every device accepts it unchecked");
    command->add_flag("--unchecked", options->unchecked, "pack anything, even if the checker will refuse it");

    addForecastOptions(command, options->forecast);

    CLI::Option_group* const fields = command->add_option_group("header", "Header fields, 0 or empty unless given");
    fields->add_option("--description", options->description, "text of at most 224 bytes")->type_name("WORDS");
    fields->add_option("--file-id", options->header.ulFileID, "file identifier");
    fields->add_option("--image-version", options->header.ulVersion, "version of the image");
    fields->add_option("--compress-type", options->header.ulCompressType, "compression type");
    fields->add_option("--reserved", options->header.ulReserved4RPS, "the reserved word");
    fields->add_option("--header-crc", options->header.ulHeaderCrc, "checksum of the header, which is not checked");
    fields->add_option("--file-crc", options->header.ulFileCRC, "checksum of the file, which is not checked");
    fields->add_option("--length", options->length, "the package's length by default");
    fields->add_option("--sub-file-count", options->count, "the true number by default");
    command->footer(app.get_footer());
    command->callback([options] { pack(*options); });
}

void addUnpackCommand(CLI::App& app)
{
    struct Options {
        std::string package;
        std::string directory;
        Existing existing = Existing::Refuse;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand("unpack", "Write a package's sub-files into a directory");
    command->add_option("package", options->package, "the package; - is standard input")->required();
    command->add_option("-d,--directory", options->directory, "for the files; created if it does not exist")
        ->type_name("DIRECTORY")
        ->required();
    addForceFlag(command, options->existing);
    command->footer("The files are named after place and type: 1-payload, 2-signature, 3-crl, 1-0x20000000.\n\n" +
                    app.get_footer());
    command->callback([options] { unpack(options->package, options->directory, options->existing); });
}

void addListCommand(CLI::App& app)
{
    const auto package = std::make_shared<std::string>();
    CLI::App* const command =
        app.add_subcommand("list", "Show a package's header and table without verifying anything");
    command->add_option("package", *package, "the package; - is standard input")->required();
    command->callback([package] { list(*package); });
}

} // namespace pkgtool
