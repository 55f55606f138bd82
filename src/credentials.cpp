#include "credentials.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "settings.h"

namespace {

constexpr std::size_t PassphraseCapacity = 4096; // one read, and its terminator

using PassphraseSource = std::optional<std::string> (*)(const char* key);

std::optional<std::string> FromArgument(const char* key) {
    return key;
}

std::optional<std::string> FromEnvironment(const char* key) {
    const char* const value = std::getenv(key);
    if (value == nullptr) {
        LogMessageTo(stderr, "%s: There is no environment variable named '%s'\n", ProgramName, key);
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
        LogMessageTo(stderr, "%s: Passphrase truncated to %d bytes\n", ProgramName, static_cast<int>(count));
    return buffer.data();
}

// The descriptor stays open: it is the caller's.
std::optional<std::string> FromDescriptor(const char* key) {
    long number;
    const bool whole = ParseAnyBase(key, std::strtol, number);
    const int descriptor = static_cast<int>(number);
    if (!whole || descriptor != number) {
        LogMessageTo(stderr, "%s: Bad file descriptor '%s'\n", ProgramName, key);
        return std::nullopt;
    }
    std::optional<std::string> line = ReadFirstLine(descriptor);
    if (!line)
        LogMessageTo(stderr, "%s: read(%d): %s\n", ProgramName, descriptor, std::strerror(errno));
    return line;
}

std::optional<std::string> FromFile(const char* key) {
    const Descriptor file(::open(key, O_RDONLY | O_CLOEXEC));
    if (file.Get() <= 0) {
        LogMessageTo(stderr, "%s: open(%s): %s\n", ProgramName, key, std::strerror(errno));
        return std::nullopt;
    }
    std::optional<std::string> line = ReadFirstLine(file.Get());
    if (!line)
        LogMessageTo(stderr, "%s: read(%s): %s\n", ProgramName, key, std::strerror(errno));
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

int ReadCredentials(const char* argument) {
    RunSettings.user.reset();
    RunSettings.password.reset();
    const char* const colon = std::strchr(argument, ':');
    if (colon == nullptr) {
        LogMessageTo(stderr, "%s: Missing password in credentials\n", ProgramName);
        return -1;
    }
    for (const Where& where : Wheres) {
        if (!StartsWithIgnoringCase(colon + 1, where.keyword))
            continue;
        RunSettings.password = where.source(colon + 1 + std::strlen(where.keyword));
        if (!RunSettings.password)
            return -1;
        RunSettings.user = std::string(argument, colon);
        return 0;
    }
    LogMessageTo(stderr, "%s: bad where following user name\n", ProgramName);
    return -1;
}

void HidePassphrase(char* argument) {
    char* const colon = std::strchr(argument, ':');
    if (colon == nullptr || !StartsWithIgnoringCase(colon + 1, HereKeyword.keyword))
        return;
    char* const passphrase = colon + 1 + std::strlen(HereKeyword.keyword);
    std::memset(passphrase, '*', std::strlen(passphrase));
}
