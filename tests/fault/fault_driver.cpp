// Tells a story once for each fault: fault_driver SHIM OBJECTS MOST AT_ONCE STORY [ARGUMENT]...
//
// SHIM is libqxpfault.so, OBJECTS what it makes fail (see there), MOST how many stories are told at most, spread over
// all places where a call was made, AT_ONCE how many at a time for each processor. QXP_FAULTS_ALL=1 in the environment
// tells them all, every single call failing once; QXP_FAULTS=CALL,PLACE,TURN tells one. A story passes when it ends by
// itself, with exit code 0, and leaves no process. Exit code: 0 all passed, 1 some did not, 2 the stories cannot be
// told.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

/// A function that is made to fail.
struct Function {
    const char* name;
    const char* expected;  ///< when the plugin itself calls it: one of these texts, parted by '|', then is in the log
    bool memory = false;   ///< called in so many places that one turn each is enough
};

constexpr Function FUNCTIONS[] = {
    {"malloc", "", true},
    {"new", "", true},
    {"read", ""},
    {"write", ""},
    {"fwrite", "GenScriptFile fwrite Error[|SendReportDataToServer fwrite"},
    {"fsync", ""},
    {"ftruncate", ""},
    {"open", ""},
    {"fopen",
     "GenScriptFile open Error[|SendReportDataToServer fopen|qxpmaint_ini_parse_handler error|"
     "pJsonData is NULL|GetWardenPid fopen"},
    {"opendir", ""},
    {"getdents64", ""},
    {"readlink", ""},
    {"mkdir", ""},
    {"eventfd", ""},
    {"pidfd_open", ""},
    {"popen", "MaintCreateProcess Error["},
    {"pthread_create",
     "MaintCreateThread Error[|pthread_create qxpmaint_loadpolicyfile_thread error[|stream left open"},
};

/// Shortages that last: CALL,PLACE,TURN as the shim has them.
constexpr const char* SHORTAGES[] = {
    "descriptors,0,0",  "descriptors,1,0",  "descriptors,2,0", "descriptors,3,0",
    "descriptors,4,0",  "descriptors,5,0",  "descriptors,6,0", "descriptors,8,0",
    "descriptors,12,0", "descriptors,20,0", "proc,/proc,0",    "proc,/proc/thread-self/children,0",
};

enum Outcome { Passed = 0, Failed = 1, NotReached = 3 };

std::string shim;
std::string objects;
std::vector<char*> story;

const Function* Find(const std::string& fault) {
    const auto* found = std::find_if(std::begin(FUNCTIONS), std::end(FUNCTIONS), [&](const Function& function) {
        return fault.starts_with(std::string(function.name) + ',');
    });
    return found == std::end(FUNCTIONS) ? nullptr : found;
}

[[noreturn]] void Execute(const std::string& fault, const TempDir& directory) {
    const int out = open((directory / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    const char* options = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS",
           (std::string(options ? options : "detect_leaks=1:abort_on_error=1") +
            ":detect_stack_use_after_return=0:verify_asan_link_order=0")
               .c_str(),
           1);
    // One check of undefined behaviour looks at memory through a pipe, and takes the want of one for a wrong object.
    if (fault.starts_with("descriptors,")) {
        setenv("UBSAN_OPTIONS", "print_stacktrace=1:halt_on_error=0", 1);
    }
    setenv("TMPDIR", directory.Path().c_str(), 1);
    setenv("QXP_FAULTS", fault.c_str(), 1);
    setenv("QXP_FAULT_OBJECTS", objects.c_str(), 1);
    setenv("QXP_FAULT_REPORT", (directory / "report").c_str(), 1);
    const Function* function = Find(fault);
    if (function && *function->expected && fault.starts_with(std::string(function->name) + ",libqxpmaint.so+")) {
        setenv("QXP_FAULT_EXPECTED", function->expected, 1);
    }
    setenv("LD_PRELOAD", shim.c_str(), 1);
    execv(story[0], story.data());
    _exit(127);
}

/// Ends what the story has left; the processes are children of this one now. Their number.
int EndProcessesLeft() {
    int left = 0;
    const auto all_gone = [] {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return waitpid(-1, nullptr, WNOHANG) < 0;
    };
    while (!WaitUntil(all_gone, std::chrono::seconds(left == 0 ? 5 : 1))) {
        std::ifstream children("/proc/thread-self/children");
        for (pid_t pid = 0; children >> pid; ++left) {
            kill(pid, SIGKILL);
        }
    }
    return left;
}

/// One story, in a process of its own that inherits what the story leaves. The survey's report is copied.
int Tell(const std::string& fault, const std::string& survey) {
    const TempDir directory;
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t pid = fork();
    if (pid == 0) {
        Execute(fault, directory);
    }
    int status = 0;
    std::string end;
    if (!WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, std::chrono::seconds(90))) {
        end = "did not end";
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    } else if (WIFSIGNALED(status)) {
        end = std::string("ended by the signal ") + strsignal(WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        end = "exit code " + std::to_string(WEXITSTATUS(status));
    }
    std::istringstream out(ReadFile(directory / "out"));
    for (std::string line; std::getline(out, line);) {
        if (line.find("runtime error:") != std::string::npos &&
            line.find("does not point to an object of type") == std::string::npos) {
            end += line;
        }
    }
    // A shortage that lasts can hide processes from the product, which then says so.
    const bool lasts = fault.ends_with(",0");
    if (const int left = EndProcessesLeft();
        left != 0 && !(lasts && ReadFile(directory / "out").find("processes may be left") != std::string::npos)) {
        end += (end.empty() ? "" : ", ") + std::to_string(left) + " processes left";
    }
    const std::string report = ReadFile(directory / "report");
    if (!survey.empty()) {
        std::ofstream(survey) << report;
    }
    if (!end.empty()) {
        std::ostringstream line;
        line << "FAILED: " << end << '\n'
             << ReadFile(directory / "out").substr(0, 6000) << report << "  repeat with: QXP_FAULTS=" << fault
             << " fault_driver " << shim << ' ' << objects << " 1 1";
        for (const char* argument : story) {
            line << ' ' << (argument ? argument : "\n");
        }
        std::cout << line.str() << std::flush;
        return Failed;
    }
    return report.empty() && Find(fault) ? NotReached : Passed;
}

std::vector<std::string> FaultsOf(const std::string& survey, size_t most) {
    std::vector<std::string> faults(std::begin(SHORTAGES), std::end(SHORTAGES));
    std::vector<std::string> memory;
    const bool all = getenv("QXP_FAULTS_ALL") != nullptr;
    std::ifstream report(survey);
    std::string call;
    std::string place;
    for (unsigned count = 0; report >> call >> place >> count;) {
        const Function* function = Find(call + ',');
        std::string where = call;
        where.append(",").append(place).append(",");
        const auto add = [&](unsigned turn) {
            (function->memory && !all ? memory : faults).push_back(where + std::to_string(turn));
        };
        if (!function) {
            throw std::runtime_error("unknown function in the survey: " + call);
        }
        for (unsigned turn = 1; turn <= count; turn += all || turn + 1 >= count ? 1 : count - turn) {
            if (all || turn == 1 || !function->memory) {
                add(turn);
            }
        }
        const bool log = call == "write" && place.starts_with("libqxhost.so");  // which is then missing as a witness
        if ((all || !function->memory) && !log) {
            add(0);
        }
    }
    faults.insert(faults.end(), memory.begin(), memory.end());
    if (all || faults.size() <= most) {
        return faults;
    }
    // By even steps, so that every part of the road has its share.
    for (size_t i = 0; i < most; ++i) {
        faults[i] = faults[i * faults.size() / most];
    }
    faults.resize(most);
    return faults;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 6) {
        std::cerr << "usage: fault_driver SHIM OBJECTS MOST AT_ONCE STORY [ARGUMENT]...\n";
        return 2;
    }
    shim = argv[1];
    objects = argv[2];
    story.assign(argv + 5, argv + argc + 1);  // with its null
    if (const char* only = getenv("QXP_FAULTS")) {
        const int outcome = Tell(only, "");
        std::cout << (outcome == Passed ? "passed\n" : outcome == NotReached ? "the call was not made\n" : "");
        return outcome;
    }
    const TempDir directory;
    if (Tell("survey", directory / "survey") != Passed) {
        return 2;
    }
    const std::vector<std::string> faults = FaultsOf(directory / "survey", std::stoul(argv[3]));
    struct Tally {
        unsigned calls = 0, not_reached = 0, failed = 0;
    };
    std::map<std::string, Tally> tallies;
    std::map<pid_t, size_t> running;
    const size_t at_once = std::stoul(argv[4]) * static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    for (size_t next = 0; next < faults.size() || !running.empty();) {
        if (next < faults.size() && running.size() < at_once) {
            const pid_t pid = fork();
            if (pid == 0) {
                int outcome = Failed;
                try {
                    outcome = Tell(faults[next], "");
                } catch (const std::exception& error) {
                    std::cout << error.what() << std::endl;
                }
                _exit(outcome);
            }
            running[pid] = next++;
            continue;
        }
        int status = 0;
        const pid_t pid = wait(&status);
        const std::string& fault = faults[running.at(pid)];
        Tally& tally = tallies[fault.substr(0, fault.find(','))];
        const int outcome = WIFEXITED(status) ? WEXITSTATUS(status) : static_cast<int>(Failed);
        ++(outcome == Passed ? tally.calls : outcome == NotReached ? tally.not_reached : tally.failed);
        running.erase(pid);
        if (isatty(STDOUT_FILENO)) {
            std::cout << '\r' << next << " of " << faults.size() << std::flush;
        }
    }
    unsigned failed = 0;
    for (const auto& [call, tally] : tallies) {
        std::cout << call << ": made to fail in " << tally.calls + tally.failed << " stories, not called in "
                  << tally.not_reached << ", faults found in " << tally.failed << '\n';
        failed += tally.failed;
    }
    std::cout << faults.size() << " stories, " << failed << " with faults of the product\n";
    return failed == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << "fault_driver: " << error.what() << '\n';
    return 2;
}
