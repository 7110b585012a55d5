// Command lines of vexlog and vexsign: the parts that both share. Needs CLI11.
#pragma once

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Exit.h"
#include "Message.h"

namespace tools {

// Adds --version and --help, and sets the layout of the help.
inline void AddCommonOptions(CLI::App& app, const std::string& strVersion, const std::string& strExamples) {
    app.footer(strExamples);
    app.set_version_flag("--version", app.get_name() + " " + strVersion, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.get_formatter()->column_width(34);
}

// Adds an argument or option that is a file name. Refuses an empty one, such as that of an empty shell variable.
inline CLI::Option* AddFile(CLI::App& app, const std::string& strName, std::string& strFile, const std::string& strText,
                            const std::string& strValue = "") {
    const auto check = [](std::string& strGiven) {
        return strGiven.empty() ? "the name is empty; give a file name" : "";
    };
    return app.add_option(strName, strFile, strText)
        ->capture_default_str()
        ->check(CLI::Validator(check, ""))
        ->type_name(strValue);
}

// Adds an option that may be given several times, with one value each.
inline void AddList(CLI::App& app, const std::string& strName, std::vector<std::string>& values,
                    const std::string& strValue, const std::string& strText) {
    app.add_option(strName, values, strText)
        ->type_name(strValue)
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// Parses the command line, then calls check, which may throw CLI's errors too. False: the program has to exit with
// nExit, and the help, the version or an error message has been printed.
template <typename Check>
bool Parse(CLI::App& app, int argc, char** argv, Check check, int& nExit) {
    try {
        app.parse(argc, argv);
        check();
        return true;
    } catch (const CLI::Success& success) {
        nExit = app.exit(success, std::cout, std::cerr);
    } catch (const CLI::ParseError& error) {
        // The message quotes the user's arguments.
        std::ostringstream text;
        app.exit(error, text, text);
        std::cerr << VisibleLines(text.str());
        nExit = kExitUsage;
    }
    return false;
}

}  // namespace tools
