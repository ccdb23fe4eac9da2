#define OPENSSL_SUPPRESS_DEPRECATED

#include "files/sja_verify.h"

#include "files/file_stream.h"
#include "platform/handle.h"
#include "platform/interruption.h"
#include "tests/support/child_process.h"
#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

namespace {

using Sequence = std::unique_ptr<byte_sequence, Release<free_byte_sequence>>;
using PublicKey = std::unique_ptr<RSA, Release<free_pubkey>>;

std::string text_of(const Sequence& sequence) {
    return sequence ? std::string(reinterpret_cast<const char*>(sequence->data), sequence->length) : "none";
}

// What SHA512_Update counts instead of digesting it, while a test says so.
std::optional<std::uint64_t> digested_bytes;

std::string sha_512(const std::string& bytes) {
    std::string digest(SHA512_DIGEST_LENGTH, '\0');
    SHA512(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
           reinterpret_cast<unsigned char*>(digest.data()));
    return digest;
}

class Signature : public ::testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove("/usr/ormex/large"); }

    FileStream stream_of(const std::string& bytes) {
        write_file(path_, bytes);
        return FileStream(std::fopen(path_.c_str(), "rb"));
    }

    PublicKey key_from(const std::string& pem) {
        write_file(key_path_, pem);
        return PublicKey(get_pubkey(key_path_.c_str()));
    }

    // Whether the file `path_` verifies with the key in `pem`. The stream has to stay open in any case.
    bool verifies(const std::string& pem = SigningKey::publisher().public_pem()) {
        const PublicKey key = key_from(pem);
        const FileStream archive(std::fopen(path_.c_str(), "rb"));
        const bool valid = sja_verify_hash(archive.get(), key.get());
        EXPECT_NE(fcntl(fileno(archive.get()), F_GETFD), -1);
        EXPECT_EQ(ERR_peek_error(), 0U) << "left for the next TLS connection to stumble over";
        return valid;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
    std::string key_path_ = directory_.path("pubkey.pem");
    std::string package_ = sja_bytes({{"one", "12345"}, {"two", std::string(10000, 't')}});
};

std::string padded_to(std::size_t size, const std::string& pem) {
    return pem + std::string(size - pem.size(), '\n');
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's --wrap gives these
// names
extern "C" {
int __real_SHA512_Update(SHA512_CTX*, const void*, size_t);
int __wrap_SHA512_Update(SHA512_CTX* context, const void* bytes, size_t count) {
    if (!digested_bytes)
        return __real_SHA512_Update(context, bytes, count);
    *digested_bytes += count;
    return 1;
}
} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

TEST_F(Signature, FileSizeLeavesTheStreamAtItsStart) {
    const FileStream stream = stream_of("0123456789");
    ASSERT_EQ(std::fseek(stream.get(), 7, SEEK_SET), 0);
    EXPECT_EQ(get_filesize(stream.get()), 10);
    EXPECT_EQ(std::ftell(stream.get()), 0);
    EXPECT_EQ(get_filesize(stream_of("").get()), 0);
}

TEST_F(Signature, FileSizeHas64Bits) {
    write_sparse_file(path_, (std::uint64_t{5} << 30) + 1);
    const FileStream stream(std::fopen(path_.c_str(), "rb"));
    EXPECT_EQ(get_filesize(stream.get()), (std::int64_t{5} << 30) + 1);
}

TEST_F(Signature, FileSizeOfAPipeIsUnknown) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const FileStream reading(fdopen(ends[0], "rb"));
    const FileStream writing(fdopen(ends[1], "wb"));
    EXPECT_EQ(get_filesize(reading.get()), -1);
    EXPECT_FALSE(sja_verify_hash(reading.get(), nullptr));
}

TEST_F(Signature, RangeIsReadWhereItLies) {
    const FileStream stream = stream_of("0123456789");
    EXPECT_EQ(text_of(Sequence(get_signature(stream.get(), 0, 10))), "0123456789");
    EXPECT_EQ(text_of(Sequence(get_signature(stream.get(), 3, 4))), "3456");
    EXPECT_EQ(text_of(Sequence(get_signature(stream.get(), 9, 1))), "9");
    EXPECT_EQ(text_of(Sequence(get_signature(stream.get(), 10, 0))), "");
}

TEST_F(Signature, RangeOutsideTheFileClosesTheStream) {
    const struct {
        std::uint64_t offset;
        std::uint16_t length;
    } cases[] = {{0, 11}, {1, 10}, {10, 1}, {11, 0}, {UINT64_MAX, 1}, {UINT64_MAX, 0}};
    for (const auto& c : cases) {
        FILE* stream = stream_of("0123456789").release();
        const int descriptor = fileno(stream);
        EXPECT_EQ(get_signature(stream, c.offset, c.length), nullptr) << c.offset;
        EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << c.offset;
    }
}

TEST_F(Signature, RangeOfAPipeClosesTheStream) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(get_signature(fdopen(ends[0], "rb"), 0, 4), nullptr);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    close(ends[1]);
}

TEST_F(Signature, RangeThatCannotBeReadClosesTheStream) {
    const int result = with_failing_syscall(SYS_read, EIO, [this] {
        FILE* stream = std::fopen(directory_.path("b.sja").c_str(), "wb+");
        if (std::fputs("0123456789", stream) < 0 || std::fflush(stream) != 0)
            return 9;
        const int descriptor = fileno(stream);
        return get_signature(stream, 0, 4) == nullptr && fcntl(descriptor, F_GETFD) == -1 ? 7 : 8;
    });
    EXPECT_EQ(result, 7);
}

TEST_F(Signature, DigestCoversTheBytesUpToItsEnd) {
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 8191U, 8192U, 300000U}) {
        const std::string bytes = std::string(size, 'd') + "behind";
        const FileStream stream = stream_of("before" + bytes);
        EXPECT_EQ(text_of(Sequence(calc_sha_512(stream.get(), 6, 6 + size))), sha_512(std::string(size, 'd')))
            << size;
    }
}

TEST_F(Signature, DigestCoversBytesPast4GiB) {
    path_ = "/usr/ormex/large"; // in memory, so that no disk is read
    const std::uint64_t end = (std::uint64_t{4} << 30) + 20000;
    write_sparse_file(path_, end);
    overwrite_at(path_, end - 4, "end.");
    const FileStream stream(std::fopen(path_.c_str(), "rb"));
    EXPECT_EQ(text_of(Sequence(calc_sha_512(stream.get(), end - 9000, end))),
              sha_512(std::string(8996, '\0') + "end."));
}

// With the digest's bytes counted and not computed, which would take many seconds.
TEST_F(Signature, DigestCoversEveryByteOfAFileOfMoreThan4GiB) {
    path_ = "/usr/ormex/large";
    const std::uint64_t size = (std::uint64_t{4} << 30) + 5000;
    write_sparse_file(path_, size);
    const FileStream archive(std::fopen(path_.c_str(), "rb"));
    const PublicKey key = key_from(SigningKey::publisher().public_pem());
    digested_bytes = 0;
    EXPECT_FALSE(sja_verify_hash(archive.get(), key.get()));
    EXPECT_EQ(digested_bytes, size - 512);
    digested_bytes.reset();
}

TEST_F(Signature, DigestFailsWhenItsEndComesFirst) {
    const FileStream stream = stream_of("0123456789");
    EXPECT_EQ(calc_sha_512(stream.get(), 5, 4), nullptr);
    EXPECT_NE(fcntl(fileno(stream.get()), F_GETFD), -1);
}

TEST_F(Signature, DigestFailsWhenTheFileCannotBeReadOrSeeked) {
    const FileStream directory(std::fopen(directory_.path().c_str(), "rb"));
    EXPECT_EQ(calc_sha_512(directory.get(), 0, 10), nullptr);
    EXPECT_EQ(calc_sha_512(directory.get(), UINT64_MAX - 1, UINT64_MAX), nullptr);
    EXPECT_NE(fcntl(fileno(directory.get()), F_GETFD), -1);
}

TEST_F(Signature, DigestDoesNotNoticeAFileThatEndsEarly) {
    // What is missing is digested as the buffer holds it: zeros at first.
    const FileStream stream = stream_of("0123");
    EXPECT_EQ(text_of(Sequence(calc_sha_512(stream.get(), 0, 6))), sha_512(std::string("0123\0\0", 6)));
}

TEST_F(Signature, OfASignedArchiveIsValid) {
    write_file(path_, SigningKey::publisher().signed_bytes(package_));
    EXPECT_TRUE(verifies());
}

TEST_F(Signature, OfAFileOf512BytesIsCheckedAgainstTheEmptyInput) {
    write_file(path_, SigningKey::publisher().signature_of(""));
    EXPECT_TRUE(verifies());
    write_file(path_, SigningKey::publisher().signature_of("x"));
    EXPECT_FALSE(verifies());
}

TEST_F(Signature, IsInvalidAfterAnyChange) {
    const std::string whole = SigningKey::publisher().signed_bytes(package_);
    const std::pair<const char*, std::uint64_t> places[] = {{"first byte of the signature", 0},
                                                            {"last byte of the signature", 511},
                                                            {"magic", 512},
                                                            {"name length", 516},
                                                            {"size", 517},
                                                            {"mode", 525},
                                                            {"name", 527},
                                                            {"data", 530},
                                                            {"last byte", whole.size() - 1}};
    for (const auto& [what, offset] : places) {
        write_file(path_, whole);
        flip_byte(path_, offset);
        EXPECT_FALSE(verifies()) << what;
    }
    write_file(path_, whole);
    cut_last_byte(path_);
    EXPECT_FALSE(verifies());
    write_file(path_, whole);
    append_byte(path_);
    EXPECT_FALSE(verifies());
    write_file(path_, whole);
    EXPECT_TRUE(verifies());
}

TEST_F(Signature, IsInvalidWithAnotherKey) {
    write_file(path_, SigningKey::publisher().signed_bytes(package_));
    EXPECT_FALSE(verifies(SigningKey::stranger().public_pem()));
    EXPECT_FALSE(verifies(SigningKey(2048).public_pem()));
}

TEST_F(Signature, OfAnUnsignedArchiveIsInvalid) {
    write_file(path_, package_);
    EXPECT_FALSE(verifies());
}

TEST_F(Signature, OfAFileShorterThanItsBlockIsInvalid) {
    for (const std::size_t size : {0U, 1U, 511U}) {
        write_file(path_, SigningKey::publisher().signature_of("").substr(0, size));
        EXPECT_FALSE(verifies()) << size;
    }
}

TEST_F(Signature, OfADirectoryIsInvalid) {
    const PublicKey key = key_from(SigningKey::publisher().public_pem());
    const FileStream directory(std::fopen(directory_.path().c_str(), "rb"));
    EXPECT_FALSE(sja_verify_hash(directory.get(), key.get()));
    EXPECT_NE(fcntl(fileno(directory.get()), F_GETFD), -1);
}

TEST_F(Signature, KeyFilesOfUpTo65535BytesAreRead) {
    write_file(path_, SigningKey::publisher().signed_bytes(package_));
    const std::string pem = SigningKey::publisher().public_pem();
    EXPECT_TRUE(verifies(padded_to(65535, pem)));
    EXPECT_EQ(key_from(padded_to(65536, pem)), nullptr);
    EXPECT_EQ(key_from(""), nullptr);
}

TEST_F(Signature, KeyFilesThatCannotBeReadGiveNoKey) {
    EXPECT_EQ(get_pubkey(directory_.path("missing").c_str()), nullptr);
    EXPECT_EQ(get_pubkey(directory_.path().c_str()), nullptr);
    write_file(key_path_, SigningKey::publisher().public_pem());
    EXPECT_EQ(with_failing_syscall(SYS_read, EIO,
                                   [this] { return get_pubkey(key_path_.c_str()) == nullptr ? 7 : 8; }),
              7);
}

TEST_F(Signature, KeyFilesWithoutAReadableKeyGiveAKeyThatFailsEveryVerification) {
    const std::string pem = SigningKey::publisher().public_pem();
    const std::string armoured = pem.substr(pem.find('\n') + 1);
    const struct {
        const char* what;
        std::string text;
    } cases[] = {
        {"one byte", "x"},
        {"text", "this is not a key\n"},
        {"binary", std::string(3000, '\0')},
        {"damaged", std::string(pem).replace(27, 4, "AAAA")},
        {"cut in the middle", pem.substr(0, pem.size() / 2)},
        {"without its last line", pem.substr(0, pem.find("-----END"))},
        {"private key", SigningKey::publisher().private_pem()},
        {"another kind of block", "-----BEGIN RSA PUBLIC KEY-----\n" + armoured},
        {"encrypted, which would ask for a passphrase",
         "-----BEGIN PUBLIC KEY-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: "
         "AES-128-CBC,00112233445566778899AABBCCDDEEFF"
         "\n\n" +
             armoured},
        {"public key that is not RSA",
         "-----BEGIN PUBLIC KEY-----\nMCowBQYDK2VwAyEA11qYAYKxCrfVS/7TyWQHOg7hcvPapiMlrwIaaPcHURo=\n"
         "-----END PUBLIC KEY-----\n"},
    };
    write_file(path_, SigningKey::publisher().signed_bytes(package_));
    for (const auto& c : cases) {
        const PublicKey key = key_from(c.text);
        ASSERT_NE(key, nullptr) << c.what;
        EXPECT_EQ(RSA_get0_n(key.get()), nullptr) << c.what;
        EXPECT_FALSE(verifies(c.text)) << c.what;
    }
}

TEST_F(Signature, OfAProgramThatIsInterruptedIsNotCheckedToTheEnd) {
    write_file(path_, SigningKey::publisher().signed_bytes(package_));
    EXPECT_TRUE(verifies());
    const int result = in_child([this] {
        const DeferredSignals deferred;
        static_cast<void>(std::raise(SIGTERM));
        if (verifies())
            _exit(1);
        return 0;
    });
    EXPECT_EQ(result, 128 + SIGTERM);
}

TEST_F(Signature, IsCheckedWithTheSameMemoryForEverySize) {
    const std::string large = directory_.path("large.sja");
    write_sparse_file(large, std::uint64_t{64} << 20);
    write_file(path_, std::string(600, 's'));
    const PublicKey key = key_from(SigningKey::publisher().public_pem());
    const auto verify = [&key](const std::string& path) {
        const BufferedStream archive(std::fopen(path.c_str(), "rb"));
        sja_verify_hash(archive.get(), key.get());
    };
    const long growth = memory_growth([&] { verify(path_); }, [&] { verify(large); });
    EXPECT_GE(growth, 0);
    EXPECT_LT(growth, 1024);
}

TEST(SignatureRecords, AcceptNothingForRelease) {
    free_byte_sequence(nullptr);
    free_pubkey(nullptr);
}
