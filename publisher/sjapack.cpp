// sjapack: makes, signs, lists and verifies .sja packages. This unit knows the words; what they do is
// elsewhere.

#include "platform/standard_streams.h"
#include "publisher/archive_check.h"
#include "publisher/archive_table.h"
#include "publisher/archive_writer.h"
#include "publisher/digest.h"
#include "publisher/given_signature.h"
#include "publisher/key_files.h"
#include "publisher/key_store.h"
#include "publisher/progress.h"
#include "publisher/refusal.h"
#include "publisher/signer.h"
#include "publisher/source_file.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace {

enum exit_status { DONE = 0, REFUSED = 1, WRONG_WORDS = 2 };

// What was typed.
struct Words {
    std::string archive;
    std::vector<std::string> files;
    KeyPairFiles pair;
    std::string key;
    std::string signature;
    std::string raw;
    std::string digest_info;
    PassphraseSource passphrase;
};

struct Command {
    CLI::App* words;
    std::function<void(const Words&)> run;
};

// Warns about the archive and prints its summary.
void report(const std::string& path, const ArchiveSummary& summary) {
    for (const std::string& warning : summary.warnings(path))
        std::cerr << "sjapack: warning: " << printable(warning) << "\n";
    std::cout << printable(path) << ": " << summary.text() << "\n";
}

// Throws a Refusal when writing `output` would destroy a file that this command reads.
void check_is_no_input(const std::string& output, const Words& words) {
    for (const std::string& input : {local_file(words.key), words.passphrase.file, words.signature})
        if (!input.empty() && is_same_file(output, input))
            throw Refusal(output + " is read for this, and would be lost");
}

// The same, also for any other file with a key.
void check_replaceable(const std::string& output, const Words& words) {
    check_is_no_input(output, words);
    if (key_in_file(output))
        throw Refusal(output + " holds a key, which would be lost");
}

void keygen(const Words& words) {
    make_key_pair(words.pair, words.passphrase);
    std::cout << "private key: " << words.pair.private_path << "\npublic key: " << words.pair.public_path
              << "\n";
}

void create(const Words& words) {
    check_replaceable(words.archive, words);
    pkey_ptr key;
    if (!words.key.empty())
        key = signing_key(words.key, words.passphrase);
    report(words.archive, create_archive(words.archive, words.files, key.get(), progress_terminal()));
}

void put_signature(const Words& words, SignatureSource& signature) {
    report(words.archive, sign_archive(words.archive, signature, progress_terminal()));
}

void sign(const Words& words) {
    check_is_no_input(words.archive, words);
    const pkey_ptr key = signing_key(words.key, words.passphrase);
    Signer signer(key.get());
    put_signature(words, signer);
}

void digest(const Words& words) {
    for (const std::string& output : {words.raw, words.digest_info})
        check_replaceable(output, words);
    const std::string digest = archive_digest(words.archive, progress_terminal());
    if (!words.raw.empty())
        write_digest(words.raw, digest, words.archive);
    if (!words.digest_info.empty())
        write_digest(words.digest_info, digest_info(digest), words.archive);
    std::cout << hexadecimal(digest) << "\n";
}

void attach(const Words& words) {
    check_is_no_input(words.archive, words);
    GivenSignature signature(words.signature, words.key);
    put_signature(words, signature);
}

void list(const Words& words) {
    const ArchiveSummary summary = Archive(words.archive).print(std::cout);
    if (!summary.damage.empty())
        throw Refusal(words.archive + " is damaged: " + summary.damage);
}

void verify(const Words& words) {
    verify_archive(words.archive, words.key, progress_terminal());
    std::cout << printable(words.archive) << ": the signature is valid\n";
}

// `key` is the option that names the key which the passphrase is for; null where a command makes the key.
void add_passphrase_options(CLI::App* command, Words& words, CLI::Option* key) {
    CLI::Option* file = command->add_option("--passphrase-file", words.passphrase.file,
                                            "The passphrase is the first line of FILE");
    file->type_name("FILE");
    CLI::Option* ask =
        command->add_flag("--ask-passphrase", words.passphrase.ask, "Ask for the passphrase on the terminal");
    ask->excludes(file);
    if (key != nullptr) {
        file->needs(key);
        ask->needs(key);
    }
}

CLI::Option* add_archive(CLI::App* command, const char* name, Words& words, const char* help) {
    return command->add_option(name, words.archive, help)->required()->type_name("");
}

CLI::Option* add_key(CLI::App* command, Words& words, const char* help) {
    return command->add_option("--key", words.key, help)->type_name("FILE|URI");
}

Command keygen_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("keygen", "Make a pair of RSA keys of 4096 bits");
    command->add_option("--private", words.pair.private_path, "Where the private key goes")
        ->required()
        ->type_name("FILE");
    command->add_option("--public", words.pair.public_path, "Where the public key goes")
        ->required()
        ->type_name("FILE");
    command->add_flag("--force", words.pair.replace, "Replace files that are there");
    add_passphrase_options(command, words, nullptr);
    return {command, keygen};
}

Command create_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("create", "Make an archive of files");
    add_archive(command, "OUT", words, "The archive to make");
    command->add_option("FILE", words.files, "The files, in their order in the archive")
        ->required()
        ->type_name("");
    add_passphrase_options(command, words, add_key(command, words, "Sign the archive with this private key"));
    return {command, create};
}

Command sign_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("sign", "Sign an archive, in place of a signature that it has");
    add_archive(command, "FILE", words, "The archive");
    add_passphrase_options(command, words, add_key(command, words, "The private key")->required());
    return {command, sign};
}

Command digest_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("digest", "Print what of an archive has to be signed");
    add_archive(command, "FILE", words, "The archive, unsigned or signed");
    CLI::Option* raw = command->add_option("--raw", words.raw, "Write the 64 bytes of the digest to OUT");
    raw->type_name("OUT");
    command
        ->add_option("--digest-info", words.digest_info,
                     "Write the digest to OUT with its algorithm's name in front (DigestInfo)")
        ->excludes(raw)
        ->type_name("OUT");
    return {command, digest};
}

Command attach_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("attach", "Put a signature made elsewhere in front of an archive");
    add_archive(command, "FILE", words, "The archive; a signature that it has is replaced");
    command->add_option("SIGNATURE", words.signature, "The file with the 512 bytes of the signature")
        ->required()
        ->type_name("");
    add_key(command, words, "The public key that the signature has to fit");
    return {command, attach};
}

Command list_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("list", "Show what an archive holds");
    add_archive(command, "FILE", words, "The archive");
    return {command, list};
}

Command verify_words(CLI::App& app, Words& words) {
    CLI::App* command = app.add_subcommand("verify", "Check an archive's signature");
    add_archive(command, "FILE", words, "The archive");
    add_key(command, words, "The public key")->required();
    return {command, verify};
}

int run_chosen(const std::vector<Command>& commands, const Words& words) {
    for (const Command& command : commands)
        if (command.words->parsed())
            command.run(words);
    if (!std::cout.flush())
        throw Refusal("cannot write to standard output");
    return DONE;
}

int parse_and_run(int argc, char** argv) {
    CLI::App app("Makes, signs, lists and verifies .sja packages.", "sjapack");
    app.set_version_flag("--version", "sjapack " QVREPO_VERSION);
    app.require_subcommand(1);
    // Before anything shows an argument.
    if (std::any_of(argv + 1, argv + argc, holds_pin))
        throw Refusal("a PIN in an argument (pin-value) can be seen by other users; use --ask-passphrase, "
                      "--passphrase-file or pin-source");
    Words words;
    const std::vector<Command> commands = {
        keygen_words(app, words), create_words(app, words), sign_words(app, words),  digest_words(app, words),
        attach_words(app, words), list_words(app, words),   verify_words(app, words)};
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& wrong) {
        std::cerr << "sjapack: " << printable(wrong.what()) << " (sjapack --help shows the words)\n";
        return WRONG_WORDS;
    }
    return run_chosen(commands, words);
}

} // namespace

int main(int argc, char** argv) {
    reserve_standard_fds();
    // A file that grows past a limit is an error of its write, not the program's end.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception& failure) {
        std::cerr << "sjapack: " << printable(failure.what()) << "\n";
        return REFUSED;
    }
}
