// What the command lines of vexlog and vexsign have in common. Needs CLI11.
#pragma once

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Exit.h"
#include "Message.h"

namespace tools {

// The options that every tool has, and the help's form.
inline void AddCommonOptions(CLI::App& app, const std::string& strVersion, const std::string& strExamples) {
    app.footer(strExamples);
    app.set_version_flag("--version", app.get_name() + " " + strVersion, "Print the version and end");
    app.set_help_flag("-h,--help", "Print this help and end");
    app.get_formatter()->column_width(34);
}

// For a name that must not be empty, as that of a variable without a value is.
inline CLI::Validator NotEmpty() {
    return CLI::Validator([](std::string& strName) { return strName.empty() ? "the name is empty" : ""; }, "");
}

// An option that may be given several times, with one value each.
inline void AddList(CLI::App& app, const std::string& strName, std::vector<std::string>& values,
                    const std::string& strValue, const std::string& strText) {
    app.add_option(strName, values, strText)
        ->type_name(strValue)
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// Parses, and calls check, which may throw CLI's errors as well. False when the program ends here, with the status
// nExit: the help or the version is printed, or what is wrong.
template <typename Check>
bool Parse(CLI::App& app, int argc, char** argv, Check check, int& nExit) {
    try {
        app.parse(argc, argv);
        check();
        return true;
    } catch (const CLI::Success& success) {
        nExit = app.exit(success, std::cout, std::cerr);
    } catch (const CLI::ParseError& error) {
        // It quotes what it was given.
        std::ostringstream text;
        app.exit(error, text, text);
        std::cerr << VisibleLines(text.str());
        nExit = kExitUsage;
    }
    return false;
}

}  // namespace tools
