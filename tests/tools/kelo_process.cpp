#include "kelo_process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "wait_for.h"

namespace kelo::test {
namespace {

constexpr std::chrono::seconds LONGEST_RUN(60);

void Close(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

// Appends what can be read now.
void ReadInto(int fd, std::string& text) {
    char buffer[4096];
    ssize_t got = 0;
    while (fd >= 0 && (got = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(got));
}

void Require(bool good, const char* what) {
    if (!good) throw std::system_error(errno, std::generic_category(), what);
}

// Between fork and exec: nothing but system calls.
[[noreturn]] void RunChild(const int (&child)[3], bool terminal, const char* folder,
                           char* const* arguments) {
    setsid();
    if (terminal) ioctl(child[0], TIOCSCTTY, 0);
    for (int fd = 0; fd < 3; ++fd)
        dup2(child[fd], fd);
    if (*folder != '\0' && chdir(folder) != 0) _exit(127);
    execv(KELO_COMMAND, arguments);
    _exit(127);
}

}  // namespace

KeloProcess::KeloProcess(const std::vector<std::string>& arguments, Stdio stdio,
                         const std::string& folder) {
    const bool terminal = stdio == Stdio::kTerminal;
    int child[3] = {-1, -1, -1};
    if (terminal) {
        OpenTerminal(child);
    } else {
        OpenPipes(child);
    }
    std::vector<std::string> texts = arguments;
    texts.insert(texts.begin(), "kelo");
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    pid_ = fork();
    Require(pid_ >= 0, "fork");
    if (pid_ == 0) RunChild(child, terminal, folder.c_str(), pointers.data());
    for (int i = 0; i < 3; ++i) {
        if (!terminal || i == 0) close(child[i]);
    }
    for (const int fd : {output_, errors_}) {
        if (fd >= 0) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
}

void KeloProcess::OpenPipes(int (&child)[3]) {
    int ends[2];
    Require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    child[0] = ends[0];
    input_ = ends[1];
    Require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    output_ = ends[0];
    child[1] = ends[1];
    Require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    errors_ = ends[0];
    child[2] = ends[1];
}

void KeloProcess::OpenTerminal(int (&child)[3]) {
    output_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[64];
    Require(output_ >= 0 && grantpt(output_) == 0 && unlockpt(output_) == 0 &&
                ptsname_r(output_, name, sizeof name) == 0,
            "pseudo-terminal");
    const winsize size{.ws_row = 30, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
    ioctl(output_, TIOCSWINSZ, &size);
    child[0] = child[1] = child[2] = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    Require(child[0] >= 0, name);
}

KeloProcess::~KeloProcess() {
    if (!ended_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Close(input_);
    Close(output_);
    Close(errors_);
}

void KeloProcess::Type(const std::string& text) {
    const int fd = input_ >= 0 ? input_ : output_;
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void KeloProcess::CloseInput() {
    Close(input_);
}

void KeloProcess::Signal(int number) const {
    // Once its end has been taken, the number may be another process's.
    if (!ended_) kill(pid_, number);
}

void KeloProcess::Drain() {
    ReadInto(output_, output_text_);
    ReadInto(errors_, errors_text_);
}

const std::string& KeloProcess::Output() {
    Drain();
    return output_text_;
}

const std::string& KeloProcess::Errors() {
    Drain();
    return errors_text_;
}

bool KeloProcess::Ended() {
    if (!ended_) ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
    Drain();
    return ended_;
}

bool KeloProcess::WaitForOutput(const std::string& text, size_t from) {
    const auto there = [&] {
        return Output().size() >= from && output_text_.find(text, from) != std::string::npos;
    };
    (void)WaitFor([&] { return there() || Ended(); }, LONGEST_RUN);
    return there();
}

int KeloProcess::Wait() {
    if (!WaitFor([&] { return Ended(); }, LONGEST_RUN)) return -1;
    return WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : WEXITSTATUS(status_);
}

Result Kelo(const std::vector<std::string>& arguments, const std::string& input,
            const std::string& folder) {
    KeloProcess process(arguments, KeloProcess::Stdio::kPipes, folder);
    if (!input.empty()) process.Type(input);
    process.CloseInput();
    const int exit_code = process.Wait();
    return {exit_code, process.Output(), process.Errors()};
}

void ExpectJsonLines(const std::string& text) {
    const TemporaryFolder folder;
    std::ofstream(folder / "text") << text;
    const std::string command =
        "/usr/bin/python3 -c 'import json, sys; assert [json.loads(line) for line in sys.stdin]' "
        "< " +
        (folder / "text") + " 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << text;
}

TemporaryFolder::TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kelo-tool-XXXXXX").string();
    Require(mkdtemp(name.data()) != nullptr, "mkdtemp");
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace kelo::test
