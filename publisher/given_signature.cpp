#include "publisher/given_signature.h"

#include "files/sja_verify.h"
#include "publisher/refusal.h"
#include "publisher/source_file.h"

namespace {

std::string read_signature(const std::string& path) {
    const SourceFile source = examine_source(path);
    if (source.size() != SIGNATURE_SIZE)
        throw Refusal(path + " is no signature: it has " + std::to_string(source.size()) +
                      " bytes, a signature has 512");
    std::string signature;
    read_source(source, 0, [&](const char* bytes, std::size_t count) { signature.append(bytes, count); });
    return signature;
}

byte_sequence as_sequence(std::string& bytes) {
    return {reinterpret_cast<unsigned char*>(bytes.data()), static_cast<std::uint32_t>(bytes.size())};
}

} // namespace

GivenSignature::GivenSignature(const std::string& path, const std::string& key_name)
    : path_(path), signature_(read_signature(path)) {
    if (!key_name.empty())
        key_ = read_checking_key(key_name);
}

void GivenSignature::update(const char* bytes, std::size_t count) {
    if (key_)
        digest_.update(bytes, count);
}

std::string GivenSignature::finish() {
    if (key_) {
        std::string digest = digest_.finish();
        const byte_sequence signed_digest = as_sequence(digest);
        const byte_sequence signature = as_sequence(signature_);
        if (!verify_hash(&signed_digest, &signature, key_->numbers.get()))
            throw Refusal("the signature in " + path_ + " is not valid for the archive and the key in " +
                          key_->name);
    }
    return signature_;
}
