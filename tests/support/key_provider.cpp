// A provider for OpenSSL that finds keys at "pkcs11:" URIs, where no device is: "pkcs11:object=ONE" is the
// key in the file ONE, in DER, of the directory QV_TEST_TOKEN; "pkcs11:object=ONE,TWO" is two keys. The file
// ONE.pin, where it is, holds the PIN that has to be given for ONE.

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/core_object.h>
#include <openssl/params.h>

namespace {

// The objects that a URI names, of which those before the read position have been handed out.
struct Objects {
    std::istringstream names;
};

bool read(const std::string& name, std::string& bytes) {
    const char* directory = std::getenv("QV_TEST_TOKEN");
    std::ifstream file(std::string(directory == nullptr ? "" : directory) + "/" + name, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.fail() && !bytes.empty();
}

bool is_pin_right(const std::string& name, OSSL_PASSPHRASE_CALLBACK* ask, void* ask_arg) {
    std::string pin;
    if (!read(name + ".pin", pin))
        return true;
    char given[64];
    std::size_t length = 0;
    return ask(given, sizeof given, &length, nullptr, ask_arg) == 1 && std::string(given, length) == pin;
}

void* open_store(void* /*provider*/, const char* uri) {
    static const std::string start = "pkcs11:object=";
    const std::string text = uri;
    if (text.compare(0, start.size(), start) != 0)
        return nullptr;
    return new Objects{std::istringstream(text.substr(start.size()))};
}

int load(void* store, OSSL_CALLBACK* take, void* take_arg, OSSL_PASSPHRASE_CALLBACK* ask, void* ask_arg) {
    std::string name;
    std::string key;
    std::getline(static_cast<Objects*>(store)->names, name, ',');
    if (!is_pin_right(name, ask, ask_arg) || !read(name, key))
        return 0;
    int type = OSSL_OBJECT_PKEY;
    const OSSL_PARAM object[] = {
        OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type),
        OSSL_PARAM_construct_octet_string(OSSL_OBJECT_PARAM_DATA, key.data(), key.size()),
        OSSL_PARAM_construct_end(),
    };
    return take(object, take_arg);
}

int is_at_end(void* store) {
    auto& names = static_cast<Objects*>(store)->names;
    return names.peek() == std::istringstream::traits_type::eof() ? 1 : 0;
}

int close_store(void* store) {
    delete static_cast<Objects*>(store);
    return 1;
}

const OSSL_PARAM* settable_parameters(void* /*provider*/) {
    static const OSSL_PARAM none = OSSL_PARAM_END;
    return &none;
}

int set_parameters(void* /*store*/, const OSSL_PARAM /*parameters*/[]) {
    return 1;
}

template <typename Function>
OSSL_DISPATCH entry(int id, Function* function) {
    return {id, reinterpret_cast<void (*)()>(function)};
}

const OSSL_DISPATCH STORE[] = {
    entry(OSSL_FUNC_STORE_OPEN, open_store),
    entry(OSSL_FUNC_STORE_LOAD, load),
    entry(OSSL_FUNC_STORE_EOF, is_at_end),
    entry(OSSL_FUNC_STORE_CLOSE, close_store),
    entry(OSSL_FUNC_STORE_SETTABLE_CTX_PARAMS, settable_parameters),
    entry(OSSL_FUNC_STORE_SET_CTX_PARAMS, set_parameters),
    {0, nullptr},
};
const OSSL_ALGORITHM STORES[] = {{"pkcs11", "provider=test", STORE, "keys in files"},
                                 {nullptr, nullptr, nullptr, nullptr}};

const OSSL_ALGORITHM* algorithms(void* /*provider*/, int operation, int* no_cache) {
    *no_cache = 0;
    return operation == OSSL_OP_STORE ? STORES : nullptr;
}

const OSSL_DISPATCH PROVIDER[] = {entry(OSSL_FUNC_PROVIDER_QUERY_OPERATION, algorithms), {0, nullptr}};

} // namespace

extern "C" int OSSL_provider_init(const OSSL_CORE_HANDLE* /*core*/, const OSSL_DISPATCH* /*from_core*/,
                                  const OSSL_DISPATCH** provider, void** context) {
    static int nothing;
    *provider = PROVIDER;
    *context = &nothing;
    return 1;
}
