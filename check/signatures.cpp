#include "check/signatures.h"

#include "check/signing_key.h"
#include "check/terminal.h"
#include "check/text.h"
#include "files/extractsja.h"
#include "files/sja_verify.h"
#include "platform/handle.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

namespace {

constexpr Message NO_KEY = {"TqlChk0025N", "the package-signing key %s cannot be used: %s"};

constexpr std::size_t CHUNK_SIZE = 64UL * 1024;
constexpr char MAGIC[] = "JANK";
constexpr std::size_t MAGIC_SIZE = 4;

// What the workers share.
struct Work {
    const Directory& directory;
    const std::vector<std::string>& names;
    std::vector<SignatureResult> results;
    std::unique_ptr<RSA, Release<free_pubkey>> key;
    std::atomic<std::size_t> next{0};
    std::atomic<std::uint64_t> bytes{0};
};

bool has_magic(const std::vector<unsigned char>& head, std::size_t length, std::size_t place) {
    return length >= place + MAGIC_SIZE && std::memcmp(head.data() + place, MAGIC, MAGIC_SIZE) == 0;
}

SignatureResult judge(Work& work, const std::string& name) {
    FileDescriptor file;
    struct stat status = {};
    if (const int error = open_entry(work.directory, name, file, status); error != 0)
        return {error == ENOENT || error == EINVAL ? Verdict::GONE : Verdict::NOT_READABLE, error};
    static_cast<void>(posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL));
    const std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    EVP_DigestInit_ex(context.get(), EVP_sha512(), nullptr);
    std::vector<unsigned char> buffer(CHUNK_SIZE);
    unsigned char signature[SIGNATURE_SIZE];
    Verdict form = Verdict::NOT_AN_ARCHIVE;
    // As far as the file went when it was opened: one that grows is not followed.
    const auto size = static_cast<std::uint64_t>(status.st_size);
    for (std::uint64_t done = 0; done < size;) {
        const ssize_t count =
            read(file.get(), buffer.data(), std::min<std::uint64_t>(CHUNK_SIZE, size - done));
        if (count < 0)
            return {Verdict::NOT_READABLE, errno};
        const auto length = static_cast<std::size_t>(count);
        if (done == 0 && has_magic(buffer, length, 0))
            return {Verdict::NOT_SIGNED, 0};
        if (done == 0 && !has_magic(buffer, length, SIGNATURE_SIZE))
            return {Verdict::NOT_AN_ARCHIVE, 0};
        if (length == 0)
            return {Verdict::NOT_CONFIRMED, 0}; // cut while it is read
        const std::size_t head = done == 0 ? SIGNATURE_SIZE : 0;
        std::memcpy(signature, buffer.data(), head);
        EVP_DigestUpdate(context.get(), buffer.data() + head, length - head);
        done += length;
        work.bytes += length;
        form = Verdict::NOT_CONFIRMED;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digest_size = 0;
    if (form == Verdict::NOT_AN_ARCHIVE || EVP_DigestFinal_ex(context.get(), digest, &digest_size) == 0)
        return {form, 0};
    const byte_sequence found{digest, digest_size};
    const byte_sequence told{signature, SIGNATURE_SIZE};
    return {verify_hash(&found, &told, work.key.get()) ? Verdict::CONFIRMED : Verdict::NOT_CONFIRMED, 0};
}

void judge_all(Work& work) {
    for (std::size_t i = work.next++; i < work.names.size(); i = work.next++)
        work.results[i] = judge(work, work.names[i]);
}

std::uint64_t size_of_all(const Directory& directory, const std::vector<std::string>& names) {
    std::uint64_t size = 0;
    for (const std::string& name : names)
        size += static_cast<std::uint64_t>(directory.entries.at(name).st_size);
    return size;
}

} // namespace

std::vector<SignatureResult> check_signatures(const Directory& directory,
                                              const std::vector<std::string>& names, unsigned jobs,
                                              bool show_progress) {
    if (const SigningKey key = read_signing_key(); !key.problem.empty())
        throw CannotCheck({&NO_KEY, {SIGNING_KEY_FILE, key.problem}});
    Work work{directory, names, std::vector<SignatureResult>(names.size()), {}};
    work.key.reset(get_pubkey(SIGNING_KEY_FILE));
    if (!work.key)
        throw CannotCheck({&NO_KEY, {SIGNING_KEY_FILE, std::strerror(errno)}});
    Progress progress(size_of_all(directory, names), show_progress);
    std::vector<std::future<void>> workers;
    for (std::size_t i = 0; i < std::min<std::size_t>(jobs, names.size()); ++i)
        workers.push_back(std::async(std::launch::async, judge_all, std::ref(work)));
    for (std::future<void>& worker : workers) {
        while (worker.wait_for(std::chrono::milliseconds(200)) != std::future_status::ready)
            progress.draw(work.bytes);
        worker.get();
    }
    return std::move(work.results);
}
