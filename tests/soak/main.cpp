// A long run: the library in this process, simulated cameras in another, in a network of their own.
// A seeded mix of everything that applications and networks do, each step with its oracle, between
// rests at which the library is released and what the process holds is measured.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include "camera_process.h"
#include "network_namespace.h"
#include "sampler.h"
#include "soak.h"
#include "verdict.h"

namespace {

using namespace kelo::soak;

struct Options {
    double seconds = 60;
    uint64_t seed = 1;
    std::string csv = "soak.csv";
    double rate_limit = 0.25;
    std::string only;
};

bool Parse(int argc, char** argv, Options& options, int& result) {
    CLI::App app("Runs the library for a long time against simulated cameras");
    app.add_option("--seconds", options.seconds, "how long")->capture_default_str();
    app.add_option("--seed", options.seed, "of the mix of steps")->capture_default_str();
    app.add_option("--csv", options.csv, "samples, one a second; logs go beside it")
        ->capture_default_str();
    app.add_option("--rate-limit", options.rate_limit,
                   "share of one core to use at most, cameras included; 0: no limit")
        ->capture_default_str();
    app.add_option("--only", options.only, "only the steps whose name contains this");
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& error) {
        result = app.exit(error);
        return false;
    }
}

class LongRun {
public:
    LongRun(const Options& options, CameraProcess& cameras, std::FILE* report)
        : options_(options),
          folder_(std::filesystem::absolute(options.csv).parent_path()),
          report_(report),
          cameras_(cameras),
          sampler_(options.csv),
          soak_(cameras, sampler_, options.seed, folder_) {
        for (const auto& part : {ControlSteps(), ImageSteps(), TroubleSteps()}) {
            for (const Step& step : part) {
                if (std::string(step.name).find(options.only) == std::string::npos) continue;
                steps_.insert(steps_.end(), step.weight, step);
            }
        }
    }

    // 0 when nothing was wrong.
    int Run() {
        if (steps_.empty()) throw std::runtime_error("no step of this name");
        const Usage before = MeasureUsage();
        sampler_.AtRest(before);
        double reported = 0;
        while (sampler_.Seconds() < options_.seconds) {
            keloInit();
            const uint32_t count = 3 + soak_.Chance(3);
            for (uint32_t i = 0; i < count && sampler_.Seconds() < options_.seconds; ++i) {
                MakeStep(steps_[soak_.Chance(static_cast<uint32_t>(steps_.size()))]);
                KeepToTheRate();
            }
            Rest(before);
            if (sampler_.Seconds() >= reported + 60) {
                reported = sampler_.Seconds();
                PrintProgress();
            }
        }
        return PrintVerdict();
    }

private:
    // Attempts until the machine let one run in time.
    void MakeStep(const Step& step) {
        constexpr int kAttemptsMax = 10;
        for (int attempt = 0; attempt < kAttemptsMax; ++attempt) {
            soak_.BeginStep();
            try {
                step.make(soak_);
                sampler_.CountStep();
                ++done_[step.name];
                return;
            } catch (const Disturbed& disturbed) {
                sampler_.CountDisturbed();
                std::fprintf(report_, "%8.1f s: %s, made again: %s\n", sampler_.Seconds(),
                             step.name, disturbed.what());
                std::fflush(report_);
                soak_.StartAfresh();
            } catch (const std::exception& wrong) {
                Report(step.name, wrong.what());
                soak_.StartAfresh();
                return;
            }
        }
        Report(step.name, "no attempt was in time");
    }

    void Report(const std::string& name, const std::string& what) {
        ++wrong_;
        std::fprintf(report_, "%8.1f s: WRONG: %s: %s\n", sampler_.Seconds(), name.c_str(),
                     what.c_str());
        std::fflush(report_);
        // The library's words about it.
        const std::string kept = folder_ + "/wrong-" + std::to_string(wrong_) + ".log";
        std::error_code ignored;
        std::filesystem::copy_file(folder_ + "/step.log", kept,
                                   std::filesystem::copy_options::overwrite_existing, ignored);
    }

    // Threads that have just been joined, and a firmware run's that nobody joins, take a moment to
    // be gone.
    void Rest(const Usage& before) {
        if (keloRelease() != KELO_STATUS_SUCCESS) Report("release", "keloRelease fails");
        WaitFor([&] {
            const Usage now = MeasureUsage();
            return now.threads <= before.threads && now.descriptors <= before.descriptors;
        });
        // What the system's allocator keeps for later is not what is held; how much that is goes by
        // how its threads happened to meet.
        malloc_trim(0);
        sampler_.AtRest(MeasureUsage());
    }

    void KeepToTheRate() {
        if (options_.rate_limit <= 0) return;
        while (ProcessorSeconds(cameras_.Pid()) > options_.rate_limit * sampler_.Seconds() + 1 &&
               sampler_.Seconds() < options_.seconds) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    void PrintProgress() {
        const Usage& usage = sampler_.Rests().back().usage;
        std::fprintf(report_,
                     "%8.1f s: %lu steps (%lu attempts disturbed), %lu images, %lu reads, %lu "
                     "wrong; at rest %lu kB resident, %lu kB heap, %u descriptors, %u threads\n",
                     sampler_.Seconds(), sampler_.Steps(), sampler_.Disturbed(), sampler_.Images(),
                     sampler_.Reads(), wrong_, usage.resident_kb, usage.heap_kb, usage.descriptors,
                     usage.threads);
        std::fflush(report_);
    }

    int PrintVerdict() {
        PrintProgress();
        for (const auto& [name, count] : done_)
            std::fprintf(report_, "    %-22s %6lu\n", name.c_str(), count);
        const auto& rests = sampler_.Rests();
        const std::vector<Sample> half(rests.begin() + static_cast<long>(rests.size() / 2),
                                       rests.end());
        std::fprintf(report_, "over the second half: resident %+.0f kB, heap %+.0f kB; %zu rests\n",
                     Growth(half, &Usage::resident_kb), Growth(half, &Usage::heap_kb),
                     rests.size());
        std::fprintf(report_, "processor: %.3f of one core, cameras included\n",
                     ProcessorSeconds(cameras_.Pid()) / sampler_.Seconds());
        const std::vector<std::string> wrong = JudgeRests(rests);
        for (const std::string& text : wrong)
            std::fprintf(report_, "WRONG: %s\n", text.c_str());
        const bool pass = wrong.empty() && wrong_ == 0 && sampler_.Steps() > 0;
        std::fprintf(report_, "%s (seed %lu)\n", pass ? "PASS" : "FAIL", options_.seed);
        std::fflush(report_);
        return pass ? 0 : 1;
    }

    const Options options_;
    const std::string folder_;
    std::FILE* const report_;
    CameraProcess& cameras_;
    Sampler sampler_;
    Soak soak_;
    std::vector<Step> steps_;
    std::map<std::string, uint64_t> done_;
    uint64_t wrong_ = 0;
};

// The system's allocator otherwise raises these with what is freed, and keeps more and more for
// later. Resident memory is to tell what is held.
void KeepTheAllocatorLean() {
    constexpr int kBytes = 128 * 1024;
    mallopt(M_TRIM_THRESHOLD, kBytes);
    mallopt(M_MMAP_THRESHOLD, kBytes);
}

}  // namespace

int main(int argc, char** argv) try {
    KeepTheAllocatorLean();
    Options options;
    int result = 0;
    if (!Parse(argc, argv, options, result)) return result;
    if (!kelo::test::EnterPrivateNetwork()) {
        std::fputs("no network namespace of its own: the cameras share this host's\n", stderr);
    }
    CameraProcess cameras;
    // Standard output becomes the library's log.
    std::FILE* const report = fdopen(dup(STDOUT_FILENO), "w");
    return LongRun(options, cameras, report).Run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "kelo_soak: %s\n", error.what());
    return 2;
}
