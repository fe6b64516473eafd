#include "tools/vorn/sim/sha256.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace vorn_cli {

std::string sha256_of_file(const std::string& path) {
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        throw Failure(kFailed, fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    }
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    std::vector<unsigned char> block(std::size_t{1} << 20);
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file.get())) {
        EVP_DigestUpdate(context.get(), block.data(), got);
    }
    if (std::ferror(file.get()) != 0) {
        throw Failure(kFailed, fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(context.get(), digest, &size);
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += fmt::format("{:02x}", digest[i]);
    }
    return text;
}

} // namespace vorn_cli
