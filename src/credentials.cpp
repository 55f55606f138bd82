#include "credentials.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "support.h"

namespace {

constexpr std::size_t PassphraseCapacity = 4096; // one read, and its terminator

using PassphraseSource = std::optional<std::string> (*)(const char* key);

std::optional<std::string> FromArgument(const char* key) {
    return key;
}

std::optional<std::string> FromEnvironment(const char* key) {
    const char* const value = std::getenv(key);
    if (value == nullptr) {
        LogError("There is no environment variable named '%s'\n", key);
        return std::nullopt;
    }
    return value;
}

// The first line of what one read gives; nothing, with errno set, when the read fails.
std::optional<std::string> ReadFirstLine(int descriptor) {
    std::array<char, PassphraseCapacity> buffer{};
    const ssize_t count = ::read(descriptor, buffer.data(), buffer.size() - 1);
    if (count < 0)
        return std::nullopt;
    void* const newline = std::memchr(buffer.data(), '\n', static_cast<std::size_t>(count));
    if (newline != nullptr)
        *static_cast<char*>(newline) = '\0';
    else
        LogError("Passphrase truncated to %d bytes\n", static_cast<int>(count));
    std::string line = buffer.data();
    if (line.ends_with('\r')) // which no command can carry
        LogError("Passphrase ends in a carriage return: it was written with DOS line ends\n");
    return line;
}

// The descriptor stays open: it is the caller's.
std::optional<std::string> FromDescriptor(const char* key) {
    long number;
    const bool whole = ParseAnyBase(key, std::strtol, number);
    const int descriptor = static_cast<int>(number);
    if (!whole || descriptor != number) {
        LogError("Bad file descriptor '%s'\n", key);
        return std::nullopt;
    }
    std::optional<std::string> line = ReadFirstLine(descriptor);
    if (!line)
        LogError("read(%d): %s\n", descriptor, std::strerror(errno));
    return line;
}

std::optional<std::string> FromFile(const char* key) {
    const Descriptor file(::open(key, O_RDONLY | O_CLOEXEC));
    if (file.Get() <= 0) {
        LogError("open(%s): %s\n", key, std::strerror(errno));
        return std::nullopt;
    }
    std::optional<std::string> line = ReadFirstLine(file.Get());
    if (!line)
        LogError("read(%s): %s\n", key, std::strerror(errno));
    return line;
}

struct Where {
    const char* keyword;
    PassphraseSource source;
};
constexpr Where HereKeyword{"here:", FromArgument};
constexpr std::array<Where, 4> Wheres{
    {HereKeyword, {"env:", FromEnvironment}, {"fd:", FromDescriptor}, {"file:", FromFile}}};

} // namespace

std::optional<Credentials> ReadCredentials(const char* argument) {
    const char* const colon = std::strchr(argument, ':');
    if (colon == nullptr) {
        LogError("Missing password in credentials\n");
        return std::nullopt;
    }
    for (const Where& where : Wheres) {
        if (!StartsWithIgnoringCase(colon + 1, where.keyword))
            continue;
        std::optional<std::string> password = where.source(colon + 1 + std::strlen(where.keyword));
        if (!password)
            return std::nullopt;
        return Credentials{std::string(argument, colon), std::move(*password)};
    }
    LogError("bad where following user name\n");
    return std::nullopt;
}

void HidePassphrase(char* argument) {
    char* const colon = std::strchr(argument, ':');
    if (colon == nullptr || !StartsWithIgnoringCase(colon + 1, HereKeyword.keyword))
        return;
    char* const passphrase = colon + 1 + std::strlen(HereKeyword.keyword);
    std::memset(passphrase, '*', std::strlen(passphrase));
}
