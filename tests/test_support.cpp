#include "test_support.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "vondral-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
    path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != text.npos;
}

std::string ReadFile(const fs::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

void WriteFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string Messages(const std::string& log) {
    static const std::regex prefix(R"(\[\d\d:\d\d:\d\d\] \[T\d+\] )");
    static const std::regex place(R"((\[\w+\.cpp)[,:]\d+\])");
    static const std::regex seconds(R"( +[\d.]+ s( [\d.]+ [ KMG]?B/s)?)");
    const std::string placed = std::regex_replace(std::regex_replace(log, prefix, ""), place, "$1]");
    return std::regex_replace(placed, seconds, " # s");
}

Capture::Capture() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
}

std::string Capture::Take() {
    const std::string err = testing::internal::GetCapturedStderr();
    return Messages(err + testing::internal::GetCapturedStdout());
}

namespace {

// Opens a descriptor of a program that is started.
void Open(int descriptor, const char* path) {
    const int opened = ::open(path, descriptor == STDIN_FILENO ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (opened < 0)
        ::_exit(126);
    if (opened != descriptor) {
        ::dup2(opened, descriptor);
        ::close(opened);
    }
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

// All of it is made ready before the fork: behind it nothing may be allocated, for a thread that is not there any more
// could hold the allocator's lock.
pid_t Program::Start() {
    arguments.insert(arguments.begin(), executable.empty() ? VONDRAL_UNDER_TEST : executable);
    environment["VONDRAL_TEST_PORT"] = std::to_string(port);
    environment["VONDRAL_TEST_MINUTE"] = std::to_string(minute_ms);
    std::map<int, fs::path> files = outputs;
    files.insert({{STDIN_FILENO, input}, {STDOUT_FILENO, logs_ / "out"}, {STDERR_FILENO, logs_ / "err"}});
    std::vector<std::string> variables;
    for (const auto& [name, value] : environment)
        variables.push_back(name + "=" + value);
    for (char** variable = ::environ; *variable != nullptr; ++variable)
        if (const std::string text = *variable; !environment.contains(text.substr(0, text.find('='))))
            variables.push_back(text);
    const std::vector<char*> argument_vector = Pointers(arguments);
    const std::vector<char*> environment_vector = Pointers(variables);
    process_ = ::fork();
    if (process_ != 0)
        return process_;
    for (const auto& [descriptor, path] : files)
        Open(descriptor, path.c_str());
    if (merged)
        ::dup2(STDOUT_FILENO, STDERR_FILENO);
    if (close_standard_streams)
        for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            ::close(descriptor);
    if (file_size_limit != UINT64_MAX) {
        const rlimit limit{file_size_limit, file_size_limit};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int signal = 1; signal < NSIG; ++signal) // whatever the parent of the tests ignores
        std::signal(signal, SIG_DFL);
    ::execve(argument_vector[0], argument_vector.data(), environment_vector.data());
    ::_exit(127);
}

Outcome Program::Wait() {
    constexpr int patience = 120000; // milliseconds
    const Descriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
    pollfd end{handle.Get(), POLLIN, 0};
    Outcome outcome;
    int ended;
    do
        ended = ::poll(&end, 1, patience);
    while (ended < 0 && errno == EINTR);
    outcome.hung = ended == 0;
    if (outcome.hung)
        ::kill(process_, SIGKILL);
    int status = 0;
    ::waitpid(process_, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1 - WTERMSIG(status);
    outcome.out = ReadFile(logs_ / "out");
    outcome.err = ReadFile(logs_ / "err");
    if (WIFSIGNALED(status))
        outcome.err += FormatText("killed by signal %d\n", WTERMSIG(status));
    return outcome;
}

Listener::Listener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    auto* const name = reinterpret_cast<sockaddr*>(&address_);
    if (::bind(socket_.Get(), name, length) != 0 || ::listen(socket_.Get(), 1) != 0 ||
        ::getsockname(socket_.Get(), name, &length) != 0)
        throw std::runtime_error("listening: " + std::string(std::strerror(errno)));
}

Descriptor Listener::Accept() const {
    return Descriptor(::accept(socket_.Get(), nullptr, nullptr));
}

rehearsal::Fault Replace(const std::string& command, const std::string& text, int nth) {
    return {rehearsal::Fault::Kind::Replace, command, nth, 0, 0, text, {}, 0};
}

rehearsal::Fault OfKind(rehearsal::Fault::Kind kind, const std::string& command, int nth, std::size_t bytes) {
    return {kind, command, nth, 0, bytes, "", {}, 0};
}

rehearsal::Fault Close(const std::string& command, int nth) {
    return OfKind(rehearsal::Fault::Kind::Close, command, nth);
}

pid_t TestSite::Start(const std::vector<std::string>& arguments) {
    if (options.root.empty())
        options.root = root.path;
    server = std::make_unique<rehearsal::Server>(options);
    program.port = detour ? detour(server->Port()) : server->Port();
    program.arguments = {"-s", options.address, "-c", options.user + ":here:" + options.password};
    program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
    return program.Start();
}

Outcome TestSite::Run(const std::vector<std::string>& arguments, const std::vector<rehearsal::Fault>& faults) {
    options.faults = faults;
    Start(arguments);
    return program.Wait();
}

std::string TestSite::File(const std::string& name, const std::string& text) const {
    WriteFile(work / name, text);
    return work / name;
}

std::string TestSite::Received(int session) const {
    std::string received;
    for (const std::string& command : server->Transcript(session))
        received += command + "|";
    return received;
}

void WriteObjects(const fs::path& root) {
    WriteFile(root / "QSYS.LIB/PAYROLL.LIB/RATES.FILE/RATES.MBR", std::string(700, 'r'));
    WriteFile(root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", "run");
    WriteFile(root / "QDLS/FOLDER/LETTER", "dear all");
    WriteFile(root / "home/it's/a file", std::string(140000, 'f'));
    WriteFile(root / "home/note", "note");
    WriteFile(root / "Security Data", "profiles");
    WriteFile(root / "System Configuration", "lines");
}

// The archive format, a second time and without a look at the program's codec.

namespace {

constexpr std::size_t Block = 512;

// The checksum field without its last byte.
std::string Sum(const std::string& block) {
    int sum = 8 * ' ';
    for (std::size_t i = 0; i < Block; ++i)
        sum += i >= 148 && i < 156 ? 0 : static_cast<signed char>(block[i]);
    return FormatText("%07o", static_cast<unsigned>(sum & 0xFFFF));
}

std::string ReadName(const std::string& header) {
    std::string name = header.substr(0, 100) + header.substr(368, 70);
    if (header.substr(293, 3) == "100") // a long one
        name += header.substr(159, 98) + header.substr(440, 70) + header.substr(305, 62);
    return name.substr(0, name.find('\0'));
}

std::size_t ReadSize(const std::string& header) {
    static const std::string alphabet = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    const std::string field = header.substr(124, 12);
    if (field[0] != '#')
        return std::stoull(field, nullptr, 8);
    std::size_t size = 0;
    for (std::size_t i = field.size() - 1; i > 0; --i)
        size = size * 64 + alphabet.find(field[i]);
    return size;
}

} // namespace

ArchiveChain ReadArchiveChain(const std::string& archive) {
    ArchiveChain chain;
    std::set<std::size_t> headers;
    std::size_t offset = 0;
    const auto has_header = [&archive](std::size_t at) {
        const std::string header = archive.substr(at, Block);
        return header.size() == Block && header.substr(148, 8) == Sum(header) + '\0';
    };
    while (has_header(offset) && !chain.sound) {
        const std::string header = archive.substr(offset, Block);
        chain.sound = header.find_first_not_of('\0') == 148 && header.find_last_not_of('\0') < 156;
        const std::size_t size = chain.sound ? 0 : ReadSize(header);
        const std::size_t padded = (size + Block - 1) / Block * Block;
        if (offset + Block + padded > archive.size() ||
            (!chain.sound && header.substr(265, 12) != header.substr(124, 12)))
            break;
        const std::string padding = archive.substr(offset + Block + size, padded - size);
        if (padding.find_first_not_of('\0') != padding.npos)
            break;
        headers.insert(offset);
        if (!chain.sound)
            chain.entries.push_back({ReadName(header), archive.substr(offset + Block, size)});
        offset += Block + padded;
    }
    chain.behind = archive.size() - offset;
    for (offset = 0; offset < archive.size(); offset += Block) {
        const std::string header = archive.substr(offset, Block);
        if (!headers.contains(offset) && has_header(offset) && header[0] == '/')
            chain.stray.push_back({ReadName(header), archive.substr(offset + Block, ReadSize(header))});
    }
    return chain;
}

std::optional<std::vector<ArchiveEntry>> ReadArchiveFile(const fs::path& path) {
    ArchiveChain chain = ReadArchiveChain(ReadFile(path));
    return chain.sound ? std::optional(std::move(chain.entries)) : std::nullopt;
}

std::string MakeArchive(const std::vector<ArchiveEntry>& entries) {
    std::string archive;
    const auto add_header = [&archive](std::string header) {
        header.replace(148, 7, Sum(header));
        archive += header;
    };
    for (const ArchiveEntry& entry : entries) {
        std::string header(Block, '\0');
        header.replace(0, entry.name.size(), entry.name);
        header.replace(124, 11, FormatText("%011zo", entry.data.size()));
        add_header(header);
        archive += entry.data;
        archive.resize((archive.size() + Block - 1) / Block * Block);
    }
    add_header(std::string(Block, '\0'));
    return archive;
}

std::string DiffTrees(const fs::path& one, const fs::path& other) {
    const std::string command = "diff -r --no-dereference '" + one.string() + "' '" + other.string() + "' 2>&1";
    std::FILE* const report = ::popen(command.c_str(), "r");
    std::string text;
    for (int byte = std::fgetc(report); byte != EOF; byte = std::fgetc(report))
        text += static_cast<char>(byte);
    const int status = ::pclose(report);
    return status == 0 ? text : text + "diff ended with " + std::to_string(status);
}
