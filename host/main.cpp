// q7agent: an agent daemon with the module loaded, driven by commands from a script, a pipe or a
// terminal, serving its peers between them.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Input.h"
#include "Q7Sync/Service.h"
#include "Shell.h"
#include "Wex/Trace.h"

namespace {

// The options that give the agent its identity for mutual TLS: three files, all or none.
struct CredentialOptions {
    Q7Sync::Credentials files;
    std::vector<CLI::Option*> options;

    explicit CredentialOptions(CLI::App& app) {
        auto const file = [&](char const* name, std::string& into, char const* help) {
            options.push_back(app.add_option(name, into, help)->type_name("FILE"));
        };
        file("--tls-cert", files.certificate, "this agent's certificate (PEM), signed by the authority");
        file("--tls-key", files.privateKey, "the certificate's private key (PEM)");
        file("--tls-ca", files.authority,
             "the authority (PEM) whose certificates peers must present; with all three, every connection made "
             "or accepted is mutual TLS");
    }

    bool given() const { return options.front()->count() > 0; }
    // The names of the options missing beside the others given; empty for all three or none.
    std::vector<std::string> missing() const {
        std::vector<std::string> names;
        for (CLI::Option const* o : options)
            if (!o->count()) names.push_back(o->get_name());
        if (names.size() == options.size()) names.clear();
        return names;
    }
};

} // namespace

// Whatever escapes (out of memory, a stream failing) ends the program with a message, not terminate().
int main(int argc, char** argv) try {
    CLI::App app("q7agent: an agent host with the sync module loaded.\n"
                 "Reads commands from SCRIPT, or from standard input; 'help' lists them.");
    std::string script;
    std::vector<std::string> traces;
    bool strict = false;
    app.add_option("script", script, "file of commands, one per line ('#' starts a comment)")->check(CLI::ExistingFile);
    app.add_option("--trace", traces, "switch a trace level on at start, as HANDLE:LEVEL (e.g. KelQ7SyncSubscribeSm:1)");
    app.add_flag("--strict", strict, "exit with status 1 when any command failed");
    CredentialOptions const credentials(app);
    CLI11_PARSE(app, argc, argv);
    if (auto const missing = credentials.missing(); !missing.empty()) {
        fmt::print(stderr, "q7agent: --tls-cert, --tls-key and --tls-ca go together: {} missing\n", fmt::join(missing, ", "));
        return 2;
    }

    Wex::TraceHandle::sinkIs([](std::string_view line) { fmt::print(stdout, "  trace {}\n", line); });
    for (auto const& t : traces) {
        auto colon = t.rfind(':');
        unsigned level = 10;
        if (colon != std::string::npos && colon + 2 == t.size() && t[colon + 1] >= '0' && t[colon + 1] <= '9')
            level = unsigned(t[colon + 1] - '0');
        if (level > 9 || !Wex::TraceHandle::levelIs(t.substr(0, colon), level, true)) {
            fmt::print(stderr, "q7agent: --trace takes HANDLE:LEVEL with LEVEL 0 to 9, not '{}'\n", t);
            return 2;
        }
    }

    // Before the first command: every connection the agent makes or accepts is then mutual TLS.
    if (credentials.given()) {
        try {
            Q7Sync::Service::instance().credentialsIs(credentials.files);
        } catch (std::runtime_error const& e) {
            fmt::print(stderr, "q7agent: {}\n", e.what());
            return 2;
        }
    }

    int failures = 0;
    {
        // The host goes before the summary: what it lets go of is printed as it goes.
        Q7Agent::Shell shell(stdout);
        Q7Agent::Input input(shell);
        if (!script.empty()) {
            std::ifstream in(script);
            if (!in) {
                fmt::print(stderr, "q7agent: cannot read {}\n", script);
                return 2;
            }
            input.streamRun(in);
        } else if (Q7Agent::Input::waitsForWriter(STDIN_FILENO)) {
            input.descriptorRun(STDIN_FILENO);
        } else {
            input.streamRun(std::cin);
        }
        failures = shell.failures();
    }
    if (failures) fmt::print(stdout, "q7agent: {} command(s) failed\n", failures);
    return strict && failures ? 1 : 0;
} catch (std::exception const& e) {
    std::fprintf(stderr, "q7agent: %s\n", e.what());
    return 1;
} catch (...) {
    std::fputs("q7agent: unknown exception\n", stderr);
    return 1;
}
