#include "agent/config/man_page.h"

#include "agent/config/config_file.h"
#include "agent/config/settings.h"

namespace qxpagent {

namespace {

constexpr const char* kAbout = R"(.SH DESCRIPTION
.B qxpagent
loads the maintenance plugin, hands it the signed policies that come in over a Unix socket, keeps commands and reports
in a database, and serves them to
.BR qxpctl (1).
Scripts run as the user of the agent, which is root as a rule.
.PP
The program finds everything from where it lies:
.IR bin/ ,
.IR lib/ ,
.I etc/
and
.I data/
are beside each other, and
.I bin/
becomes its working directory.
The packages put them under
.IR /opt/qxpmaint .
As a service it is started, reloaded and stopped with
.BR systemctl (1)
under the name
.BR qxpagent .
)";

constexpr const char* kConfiguration = R"(.SH CONFIGURATION FILE
An INI file with the one section
.BR [qxpagent] .
Every option above that has a value, other than
.BR \-\-config ,
is also a key, without the dashes.
An option wins over the file, and the file over the environment.
Relative paths are taken from
.I bin/
in the file, and from the working directory on the command line.
Comments are lines that begin with ; or #, and what follows a ; after white space.
)";

constexpr const char* kRest = R"(.PP
A file with a mistake changes nothing at a reload, and keeps the agent from starting:
.B \-\-check\-config
names each with its line.
.PP
.nf
    [qxpagent]
    socket\-group = qxpmaint
    retention\-days = 90    ; reports of a quarter
.fi
.SH SIGNALS
.TP
SIGTERM, SIGINT
Refuse new commands, end the running scripts, write what became of them, and end. It takes a few seconds as a rule.
.TP
SIGHUP
Read the configuration file again. The log names what has changed, and what needs a restart.
.SH EXIT STATUS
.TP
0
After a stop that was asked for.
.TP
1
The agent could not start, or a call into the plugin did not return at the stop.
.TP
2
A mistake in the options or the configuration file, which no restart mends.
.SH ENVIRONMENT
.TP
QXHOST_LOG, QXHOST_LOG_LEVEL
Stand in for
.B \-\-log
and
.B \-\-log\-level
where neither these nor the configuration file say otherwise.
.SH FILES
Beside
.IR bin/ :
.TP
.I etc/qxpagent.conf
The configuration file. It may be missing.
.TP
.I etc/plugins/qxpmaint/qxpmaint.conf
The plugin's configuration. It must be there.
.TP
.I etc/trusted\-keys/*.pem
Public Ed25519 keys that scripts may be signed with. A change needs no restart.
.TP
.I data/qxpagent
Socket and database.
.TP
.I data/qxpmaint/policyfile
Policies that are dropped here are run.
.TP
.I data/qxpmaint/policyprocess
Policies that wait to be run once.
.TP
.I data/qxpmaint/result
Result files of the plugin.
.SH SEE ALSO
.BR qxpctl (1),
.BR systemctl (1),
.BR journalctl (1)
)";

// Text for a line of its own (groff_man(7), "Portability").
std::string Escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '\\' ? "\\e" : c == '-' ? "\\-" : c == '\'' ? "\\(aq" : std::string(1, c);
    }
    return !escaped.empty() && escaped.front() == '.' ? "\\&" + escaped : escaped;
}

std::string OptionText(const CLI::Option& option) {
    const std::string& value = option.get_option_text();
    return ".TP\n\\fB" + Escape(option.get_name(false, true)) + "\\fR" +
           (value.empty() ? "" : " \\fI" + Escape(value) + "\\fR") + "\n" + Escape(option.get_description()) + ".\n";
}

// The keys that take effect at a reload, and those that need a restart.
std::string KeyText() {
    std::string reload;
    std::string restart;
    for (const Setting& setting : Settings()) {
        std::string& list = setting.reloadable ? reload : restart;
        list += (list.empty() ? "\\fB" : ", \\fB") + Escape(setting.name) + "\\fR";
    }
    return "A line may have " + std::to_string(ConfigFile::kMostLineBytes) + " bytes.\n.PP\n" + reload +
           "\nare taken over at a reload;\n" + restart + "\nat the next start.\n";
}

}  // namespace

std::string ManPage(const CLI::App& app, const std::string& version) {
    std::string text = R"(.\" Made by 'qxpagent --generate man'.
.TH QXPAGENT 8 "" ")" + version +
                       R"(" "System Administration"
.ad l
.nh
.SH NAME
qxpagent, qxpagent.conf \- run signed maintenance scripts on this machine
.SH SYNOPSIS
.B qxpagent
.RI [ options ]
)";
    text += std::string(kAbout) + ".SH OPTIONS\n";
    for (const CLI::Option* const option : app.get_options()) {
        if (!option->get_group().empty()) {
            text += OptionText(*option);
        }
    }
    return text + kConfiguration + KeyText() + kRest;
}

}  // namespace qxpagent
