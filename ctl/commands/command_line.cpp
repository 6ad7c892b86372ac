#include <CLI/CLI.hpp>
#include <exception>
#include <new>
#include <sstream>
#include <string_view>

#include "base/command_docs.h"
#include "base/error.h"
#include "ctl/commands/commands.h"

namespace qxpctl {

namespace {

constexpr void (*kCommands[])(const CommandSetup&) = {
    AddKeygenCommand, AddPackCommand, AddVerifyCommand,  AddSubmitCommand, AddRunCommand,     AddStatusCommand,
    AddWatchCommand,  AddShowCommand, AddResultsCommand, AddDropCommand,   AddRunOnceCommand, AddDoctorCommand,
};

constexpr const char* kDescription =
    "Signs maintenance scripts, has the agent of this machine run them, and shows the results.";

constexpr const char* kFooter = R"(A first run, from nothing to a result:
  qxpctl keygen --scheme ed25519 --out ops          makes ops.key.pem and ops.pub.pem
  install -m 0644 ops.pub.pem <installation>/etc/trusted-keys/
  qxpctl run --key ops.key.pem disk-check.sh

The same in steps, as when scripts are signed on another machine than they run on:
  qxpctl pack --key ops.key.pem --output policy.json disk-check.sh,timeout=60
  qxpctl verify --key ops.pub.pem policy.json
  qxpctl submit policy.json
  qxpctl watch; qxpctl results; qxpctl show ID

When something is wrong: qxpctl status; qxpctl doctor

Exit codes:
  0    done; for run and verify: every script succeeded, or would be accepted and run
  1    the answer is no: a run failed, was refused or interrupted, a script would not be accepted and run, the agent or
       the installation is not well
  2    wrong options or input that cannot be used; nothing was done
  3    the agent cannot be reached or cannot take work
  4    the wait ended before the command did; its scripts go on
  5    a file or the standard output could not be written
  130  Ctrl-C while waiting; the scripts go on

Environment:
  QXPAGENT_SOCKET  the agent's socket, unless --socket names one
  NO_COLOR         set: no colours

'qxpctl COMMAND --help' shows a command's options, with examples.)";

// What CLI11 has to say about a line that it did not accept: help that was asked for, or a fault.
ExitCode Explain(const CLI::App& program, const CLI::ParseError& error, const Console& console) {
    std::ostringstream output;
    std::ostringstream faults;
    if (program.exit(error, output, faults) == 0) {
        console.Print(output.str());
        return ExitCode::kSuccess;
    }
    std::string command = "qxpctl";
    for (const CLI::App* const chosen : program.get_subcommands()) {
        command += " " + chosen->get_name();
    }
    console.Remark("{} (see '{} --help')", error.what(), command);
    return ExitCode::kBadInput;
}

// The parser would take the next argument for the value of "--id=".
void RefuseEmptyValues(int argc, const char* const* argv) {
    for (int at = 1; at < argc; ++at) {
        const std::string_view argument = argv[at];
        if (argument == "--") {
            return;
        }
        if (argument.starts_with("--") && argument.find('=') == argument.size() - 1) {
            throw BadInput("'{}' has no value", argument);
        }
    }
}

std::string Generate(const CLI::App& program, const std::string& what) {
    if (what != "man") {
        return what == "bash" ? qxpbase::BashCompletion(program) : qxpbase::ZshCompletion(program);
    }
    return qxpbase::ManPage(program, {"1", "User Commands", "qxpctl " QXPCTL_VERSION,
                                      "qxpctl - sign maintenance scripts, have them run, see the results"});
}

ExitCode ParseAndRun(int argc, const char* const* argv, const Console& console) {
    CLI::App program(kDescription, "qxpctl");
    Invocation invocation;
    program.set_version_flag("--version", "qxpctl " QXPCTL_VERSION, "Print the version and exit");
    const CommandSetup setup(program, invocation);
    setup.JsonOption();
    setup.SocketOption();
    std::string generate;
    program.add_option("--generate", generate, "Print completions or the manual page, for packages")
        ->check(CLI::IsMember({"bash", "zsh", "man"}))
        ->group("");
    program.require_subcommand(0, 1);
    program.footer(kFooter);
    program.get_formatter()->column_width(34);
    for (const auto add : kCommands) {
        add(setup);
    }
    RefuseEmptyValues(argc, argv);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return Explain(program, error, console);
    }
    if (!generate.empty()) {
        console.Print(Generate(program, generate));
        return ExitCode::kSuccess;
    }
    if (!invocation.action) {
        static_cast<void>(console.Remarks().Write(program.help()));
        return ExitCode::kBadInput;
    }
    return invocation.action(console, invocation.common);
}

}  // namespace

int Run(int argc, const char* const* argv, const Console& console) {
    ExitCode code = ExitCode::kLocalFailure;
    try {
        code = ParseAndRun(argc, argv, console);
    } catch (const Error& error) {
        console.Remark(error.what());
        code = error.Code();
    } catch (const qxpbase::InputError& error) {
        console.Remark(error.what());
        code = ExitCode::kBadInput;
    } catch (const qxpbase::LocalError& error) {
        console.Remark(error.what());
    } catch (const std::bad_alloc&) {
        console.Remark("out of memory");
    } catch (const std::exception& error) {
        console.Remark("unexpected failure: {}", error.what());
    }
    return static_cast<int>(code);
}

}  // namespace qxpctl
