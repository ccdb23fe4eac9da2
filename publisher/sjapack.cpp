// sjapack: creates, signs, lists and verifies .sja packages. This unit parses the arguments.

#include "platform/standard_streams.h"
#include "publisher/archive_writer.h"
#include "publisher/key_store.h"
#include "publisher/output_file.h"
#include "publisher/progress.h"
#include "publisher/user_error.h"

#include <algorithm>
#include <csignal>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace {

enum exit_status { DONE = 0, REFUSED = 1, USAGE_ERROR = 2 };

struct Arguments {
    std::string archive;
    std::vector<std::string> files;
    KeyPairFiles pair;
    std::string key;
    std::string signature;
    std::string raw;
    std::string digest_info;
    PassphraseSource passphrase;
};

// Throws a UserError when writing `output` would destroy one of the files that this command reads.
void check_is_not_input(const std::string& output, const Arguments& arguments) {
    for (const std::string& input :
         {local_file_of(arguments.key), arguments.passphrase.file, arguments.signature})
        if (is_same_file(output, input))
            throw UserError(output + " is both input and output");
}

void check_is_not_key(const std::string& output) {
    if (key_in_file(output))
        throw UserError(output + " holds a key, which would be lost");
}

void keygen(const Arguments& arguments) {
    create_key_pair(arguments.pair, arguments.passphrase);
    std::cout << "private key: " << arguments.pair.private_path
              << "\npublic key: " << arguments.pair.public_path << "\n";
}

// Warns about the archive and prints its summary.
void report(const std::string& path, const ArchiveSummary& summary) {
    for (const std::string& warning : summary.warnings(path))
        std::cerr << "sjapack: warning: " << printable(warning) << "\n";
    std::cout << printable(path) << ": " << summary.text() << "\n";
}

void create(const Arguments& arguments) {
    check_is_not_input(arguments.archive, arguments);
    check_is_not_key(arguments.archive);
    KeyHandle key;
    if (!arguments.key.empty())
        key = read_private_key(arguments.key, arguments.passphrase);
    const SignatureSource signature = key ? signature_by(key.get()) : nullptr;
    report(arguments.archive,
           create_archive(arguments.archive, arguments.files, signature, progress_terminal()));
}

void sign(const Arguments& arguments) {
    check_is_not_input(arguments.archive, arguments);
    const KeyHandle key = read_private_key(arguments.key, arguments.passphrase);
    report(arguments.archive, sign_archive(arguments.archive, signature_by(key.get()), progress_terminal()));
}

void attach(const Arguments& arguments) {
    check_is_not_input(arguments.archive, arguments);
    const SignatureSource signature = signature_in(arguments.signature, arguments.key);
    report(arguments.archive, sign_archive(arguments.archive, signature, progress_terminal()));
}

void digest(const Arguments& arguments) {
    const std::string& output = arguments.raw.empty() ? arguments.digest_info : arguments.raw;
    if (is_same_file(output, arguments.archive))
        throw UserError(output + " is the archive itself");
    check_is_not_key(output);
    const std::string digest = archive_digest(arguments.archive, progress_terminal());
    if (!output.empty()) {
        const std::string bytes = arguments.raw.empty() ? digest_info(digest) : digest;
        OutputFile file(output, 0666);
        file.write(bytes.data(), bytes.size());
        file.commit();
    }
    std::cout << std::hex << std::setfill('0');
    for (const char byte : digest)
        std::cout << std::setw(2) << static_cast<unsigned>(static_cast<unsigned char>(byte));
    std::cout << "\n";
}

void list(const Arguments& arguments) {
    const ArchiveSummary summary = Archive(arguments.archive).print(std::cout);
    if (!summary.damage.empty())
        throw UserError(arguments.archive + " is damaged: " + summary.damage);
}

void verify(const Arguments& arguments) {
    verify_archive(arguments.archive, arguments.key, progress_terminal());
    std::cout << printable(arguments.archive) << ": the signature is valid\n";
}

// The subcommands, whose options fill `arguments`.
class CommandLine {
  public:
    explicit CommandLine(Arguments& arguments) : arguments_(arguments) {
        app.set_version_flag("--version", "sjapack " QVREPO_VERSION);
        app.require_subcommand(1);

        add("keygen", "Make a pair of RSA keys of 4096 bits", keygen);
        add_file("--private", arguments.pair.private_path, "Where the private key goes")->required();
        add_file("--public", arguments.pair.public_path, "Where the public key goes")->required();
        command_->add_flag("--force", arguments.pair.replace, "Replace files that exist");
        add_passphrase_options(nullptr);

        add("create", "Make an archive of files", create);
        add_positional("OUT", arguments.archive, "The archive to make");
        add_positional("FILE", arguments.files, "The files, in their order in the archive");
        add_passphrase_options(add_key("Sign the archive with this private key"));

        add("sign", "Sign an archive, in place of a signature that it has", sign);
        add_positional("FILE", arguments.archive, "The archive");
        add_passphrase_options(add_key("The private key")->required());

        add("digest", "Print what of an archive has to be signed", digest);
        add_positional("FILE", arguments.archive, "The archive, unsigned or signed");
        CLI::Option* raw = add_file("--raw", arguments.raw, "Write the 64 bytes of the digest to OUT");
        add_file("--digest-info", arguments.digest_info,
                 "Write the digest to OUT with its algorithm's name in front (DigestInfo)")
            ->excludes(raw->type_name("OUT"))
            ->type_name("OUT");

        add("attach", "Put a signature made elsewhere in front of an archive", attach);
        add_positional("FILE", arguments.archive, "The archive; a signature that it has is replaced");
        add_positional("SIGNATURE", arguments.signature, "The file with the 512 bytes of the signature");
        add_key("The public key for which the signature has to be valid");

        add("list", "Show what an archive holds", list);
        add_positional("FILE", arguments.archive, "The archive");

        add("verify", "Check an archive's signature", verify);
        add_positional("FILE", arguments.archive, "The archive");
        add_key("The public key")->required();
    }

    CLI::App app{"Makes, signs, lists and verifies .sja packages.", "sjapack"};

  private:
    void add(const char* name, const char* help, void (*run)(const Arguments&)) {
        command_ = app.add_subcommand(name, help);
        command_->callback([this, run] { run(arguments_); });
    }

    template <typename Value>
    void add_positional(const char* name, Value& value, const char* help) {
        command_->add_option(name, value, help)->required()->type_name("");
    }

    CLI::Option* add_file(const char* name, std::string& path, const char* help) {
        return command_->add_option(name, path, help)->type_name("FILE");
    }

    CLI::Option* add_key(const char* help) {
        return command_->add_option("--key", arguments_.key, help)->type_name("FILE|URI");
    }

    // `key` is the option for the key that the passphrase is for; null where a command creates the key.
    void add_passphrase_options(CLI::Option* key) {
        PassphraseSource& source = arguments_.passphrase;
        CLI::Option* file =
            add_file("--passphrase-file", source.file, "The passphrase is the first line of FILE");
        CLI::Option* ask =
            command_->add_flag("--ask-passphrase", source.ask, "Ask for the passphrase on the terminal");
        ask->excludes(file);
        if (key != nullptr) {
            file->needs(key);
            ask->needs(key);
        }
    }

    Arguments& arguments_;
    CLI::App* command_ = nullptr; // the one that options are being added to
};

int parse_and_run(int argc, char** argv) {
    // Before anything shows an argument.
    if (std::any_of(argv + 1, argv + argc, contains_pin))
        throw UserError("a PIN in an argument (pin-value) can be seen by other users; use --ask-passphrase, "
                        "--passphrase-file or pin-source");
    Arguments arguments;
    CommandLine command_line(arguments);
    try {
        command_line.app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        command_line.app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::cerr << "sjapack: " << printable(error.what()) << " (see sjapack --help)\n";
        return USAGE_ERROR;
    }
    if (!std::cout.flush())
        throw UserError("cannot write to standard output");
    return DONE;
}

} // namespace

int main(int argc, char** argv) {
    reserve_standard_fds();
    // A file that grows past a limit is an error of its write, not the program's end.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "sjapack: " << printable(error.what()) << "\n";
        return REFUSED;
    }
}
