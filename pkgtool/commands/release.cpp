// pkgtool release: turns an image into a checked package in one step. It runs sign, pack and lint as a user would, with
// the options of a configuration file, so that a release can do whatever those commands can.
#include "commands.h"
#include "error.h"
#include "files.h"
#include "text.h"
#include "verdict.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>

namespace pkgtool {

namespace {

namespace fs = std::filesystem;

constexpr int REFUSED = 1;

using Words = std::vector<std::string>;

struct ReleaseOptions {
    std::string image;
    std::string output;
    Existing existing = Existing::Refuse;
    std::string pki;
    std::string config;
    Words fields; // of the package's header, as words for pack
};

// ---- Configuration ----

struct Config {
    std::map<std::string, Words> options; // of each command, as words of its command line

    const Words& of(const std::string& command) { return options[command]; }
};

bool isCommand(const std::string& name)
{
    constexpr const char* COMMANDS[] = {"sign", "pack", "verify", "lint"};
    return std::find(std::begin(COMMANDS), std::end(COMMANDS), name) != std::end(COMMANDS);
}

Config readConfig(const std::string& path)
{
    const Bytes content = readFile(path);
    std::istringstream text(std::string(content.begin(), content.end()));
    Config config;
    for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_config(text)) {
        const std::string section = item.parents.size() == 1 ? item.parents.front() : "";
        if (!isCommand(section)) {
            throw UserError(path + ": " + item.fullname() + " is not in a section [sign], [pack], [verify] or [lint]");
        }
        if (item.name == "++" || item.name == "--") continue; // a section begins or ends
        for (const std::string& value : item.inputs) {
            config.options[section].push_back("--" + item.name + "=" + value);
        }
    }
    return config;
}

// ---- Steps ----

using AddCommand = void (*)(CLI::App& app);

// The command's exit status.
int run(const char* command, AddCommand add, Words words)
{
    CLI::App app;
    add(app);
    words.insert(words.begin(), command);
    std::reverse(words.begin(), words.end()); // CLI11's order
    try {
        app.parse(words);
    } catch (const CLI::RuntimeError& status) {
        return status.get_exit_code();
    } catch (const CLI::ParseError& error) {
        throw UserError(std::string("[") + command + "]: " + error.what(),
                        std::string("the section holds options of pkgtool ") + command);
    }
    return 0;
}

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

constexpr const char* ROOT = "--root=";

// The root of [verify], which the other steps trust, too.
std::string rootOf(const Words& verifyOptions)
{
    std::string root;
    for (const std::string& word : verifyOptions) {
        if (word.rfind(ROOT, 0) != 0) throw UserError("[verify]: no option " + word, "it takes root");
        root = word.substr(std::strlen(ROOT));
    }
    return root;
}

// A section's options, which may name another root.
Words withRoot(const Words& options, const Words& root)
{
    const auto isRoot = [](const std::string& word) { return word.rfind(ROOT, 0) == 0; };
    return std::any_of(options.begin(), options.end(), isRoot) ? options : options + root;
}

void release(const ReleaseOptions& options)
{
    if (options.image == "-" || options.output == "-") {
        throw UserError("release reads the image several times, and reports its steps on standard output",
                        "name files; pkgtool sign and pack take the name -");
    }
    const fs::path configPath = fs::absolute(options.pki.empty() ? options.config : options.pki + "/release.toml");
    const std::string image = fs::absolute(options.image);
    const std::string output = fs::absolute(options.output);
    requireWritable(output, options.existing);
    Config config = readConfig(configPath);
    fs::current_path(configPath.parent_path()); // its paths are relative to it
    const std::string root = rootOf(config.of("verify"));
    const Words rootWords = root.empty() ? Words{} : Words{"--root=" + root};

    UnfinishedDirectory scratch(output);
    const std::string cms = scratch.file("image.cms");
    const std::string package = scratch.file("image.pkg");
    (void)run("sign", addSignCommand, Words{image, "--output=" + cms} + withRoot(config.of("sign"), rootWords));
    printf("signed and stamped  %s\n", printable(options.image).c_str());
    (void)run("pack", addPackCommand,
              Words{"--payload=" + image, "--cms=" + cms, "--output=" + package} +
                  withRoot(config.of("pack"), rootWords) + options.fields);

    const Verdict verdict = judge(MappedFile(package).content(), loadRoot(root));
    if (!verdict.isAccepted() || !verdict.isSigned) {
        (void)run("explain", addExplainCommand, Words{package} + rootWords);
        throw CLI::RuntimeError(verdict.isAccepted() ? NOT_SIGNED : REFUSED);
    }
    printf("checked             accepted\n");
    const int findings = run("lint", addLintCommand, Words{package} + rootWords + config.of("lint"));
    if (findings == 0) printf("lint                nothing worse than notes\n");
    writeFile(output, MappedFile(package).content(), options.existing);
    printf("written             %s\n", printable(options.output).c_str());
    if (findings != 0) throw CLI::RuntimeError(findings);
}

} // namespace

void addReleaseCommand(CLI::App& app)
{
    const auto options = std::make_shared<ReleaseOptions>();
    CLI::App* const command =
        app.add_subcommand("release", "Sign, stamp, pack, check and lint in one step, with settings from a file");
    command->add_option("image", options->image, "the image to sign")->required();
    command->add_option("-o,--output", options->output, "the package")->required();
    addForceFlag(command, options->existing);
    CLI::Option_group* const from = command->add_option_group("settings", "Who signs, and how; one of");
    from->add_option("--pki", options->pki, "a directory of pkgtool pki new, whose release.toml is read")
        ->type_name("DIRECTORY");
    from->add_option("--config", options->config, "a file like that one");
    from->require_option(1);
    command->footer("The file has a section for each of sign, pack, verify and lint, with the options of that command\n"
                    "by their names; paths are relative to the file. A package that the checker refuses is explained\n"
                    "and not written; lint's findings are shown, and its exit status is this command's.\n\n" +
                    app.get_footer());
    command->callback([options] { release(*options); });
}

} // namespace pkgtool
