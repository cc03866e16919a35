#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kelo::test {

// A run of the kelo command, in the test's network. Ended by SIGKILL if the test does not wait for
// its end. Used by one thread.
class KeloProcess {
public:
    enum class Stdio {
        kPipes,    // output and errors apart; input is empty until Type
        kTerminal  // one pseudo-terminal of 100 columns for all three
    };

    explicit KeloProcess(const std::vector<std::string>& arguments, Stdio stdio = Stdio::kPipes,
                         const std::string& folder = {});
    ~KeloProcess();
    KeloProcess(const KeloProcess&) = delete;
    KeloProcess& operator=(const KeloProcess&) = delete;

    void Type(const std::string& text);
    void CloseInput();
    void Signal(int number) const;

    // What has come so far. On a terminal everything is output.
    const std::string& Output();
    const std::string& Errors();
    // Until the text is in the output, from the position on. False when it is not there after a
    // generous time or at the process's end.
    bool WaitForOutput(const std::string& text, size_t from = 0);
    bool Ended();
    // Waits for the end; the exit code, or 128 and the number of the signal that ended it, or -1
    // when it does not end.
    int Wait();

private:
    void OpenPipes(int (&child)[3]);
    void OpenTerminal(int (&child)[3]);
    void Drain();

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    bool ended_ = false;
    int status_ = 0;
    std::string output_text_;
    std::string errors_text_;
};

struct Result {
    int exit_code = -1;
    std::string out;
    std::string err;
};

// Runs the command to its end.
Result Kelo(const std::vector<std::string>& arguments, const std::string& input = {},
            const std::string& folder = {});

// Fails the test unless every line is a JSON text of its own, and there is one.
void ExpectJsonLines(const std::string& text);

// A folder of its own, removed with everything in it at the end.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace kelo::test
