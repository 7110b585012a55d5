// Command lines: what the programs share. Needs CLI11.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
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

// Refuses an empty value, such as that of a shell variable that is not set.
inline CLI::Validator NotEmpty(const std::string& strMessage) {
    return {[strMessage](std::string& strGiven) { return strGiven.empty() ? strMessage : std::string(); }, ""};
}

inline CLI::Validator NotEmptyName() {
    return NotEmpty("the name is empty; give a file name");
}

// Adds an argument or option that is a file name, which must not be empty.
inline CLI::Option* AddFile(CLI::App& app, const std::string& strName, std::string& strFile, const std::string& strText,
                            const std::string& strValue = "") {
    return app.add_option(strName, strFile, strText)->capture_default_str()->check(NotEmptyName())->type_name(strValue);
}

// Adds an option that is a decimal number. CLI11 alone would take "010" for 8 and "0x10" for 16.
template <typename Number>
CLI::Option* AddNumber(CLI::App& app, const std::string& strName, Number& number, const CLI::Validator& range,
                       const std::string& strValue, const std::string& strText) {
    const auto withoutZeros = [](std::string& strGiven) {
        const std::size_t nDigits = strGiven.starts_with('-') ? 1 : 0;
        if (strGiven.size() == nDigits || strGiven.find_first_not_of("0123456789", nDigits) != std::string::npos) {
            return "\"" + strGiven + "\" is no whole number";
        }
        strGiven.erase(nDigits, std::min(strGiven.find_first_not_of('0', nDigits), strGiven.size() - 1) - nDigits);
        return std::string();
    };
    return app.add_option(strName, number, strText)
        ->check(range)
        ->transform(CLI::Validator(withoutZeros, ""))
        ->type_name(strValue);
}

// Adds an argument that takes any number of file names. The callback takes them as they are: CLI11 would read "{}" as
// an empty list. Use Arguments, too.
inline CLI::Option* AddFiles(CLI::App& app, const std::string& strName, std::vector<std::string>& files,
                             const std::string& strText) {
    const auto take = [&files](const CLI::results_t& names) {
        files = names;
        return true;
    };
    return app.add_option(strName, take, strText)
        ->expected(1, -1)
        ->allow_extra_args()
        ->check(NotEmptyName())
        ->type_name("");
}

// The arguments of a program, for Parse, so that CLI11 reads them as they are meant:
// - To CLI11, "[a,b]" is a list, and "++" ends the command; from 2.4 on it makes "%%" of "{}". As names of files,
//   "./[a,b]", "./++" and "./{}" mean the same, and no other argument that looks so is right.
// - Behind "--name=" it takes the next argument for the value. "--name" and "" are what the user has written.
// textOptions: their values may be any text, which stays as it is.
inline std::vector<std::string> Arguments(int argc, char** argv, const std::vector<std::string>& textOptions = {}) {
    std::vector<std::string> arguments;
    bool bText = false;
    bool bOptions = true;
    for (int n = 1; n < argc; ++n) {
        std::string strArgument = argv[n];
        const bool bList = strArgument.starts_with('[') && strArgument.ends_with(']');
        if (!bText && (bList || strArgument == "++" || strArgument == "{}")) {
            strArgument.insert(0, "./");
        }
        bOptions = bOptions && (bText || strArgument != "--");
        const bool bEmptyValue = bOptions && !bText && strArgument.size() > 3 && strArgument.starts_with("--") &&
                                 strArgument.find('=') == strArgument.size() - 1;
        if (bEmptyValue) {
            strArgument.pop_back();
        }
        bText =
            bOptions && !bText && !bEmptyValue && std::count(textOptions.begin(), textOptions.end(), strArgument) > 0;
        arguments.push_back(std::move(strArgument));
        if (bEmptyValue) {
            arguments.emplace_back();
        }
    }
    return arguments;
}

// Adds an option that may be given several times, with one value each.
inline CLI::Option* AddList(CLI::App& app, const std::string& strName, std::vector<std::string>& values,
                            const std::string& strValue, const std::string& strText) {
    return app.add_option(strName, values, strText)
        ->type_name(strValue)
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// For a program that needs a command: what is wrong if the user gave none of its commands. Empty: one was given.
inline std::string CommandError(const CLI::App& app) {
    if (app.get_require_subcommand_min() == 0 || !app.get_subcommands().empty()) {
        return {};
    }
    const std::vector<std::string> given = app.remaining();
    std::string strError = given.empty() || given.front().starts_with('-')
                               ? "no command is given; one of"
                               : "unknown command \"" + given.front() + "\"; one of";
    const char* pszBefore = ": ";
    for (const CLI::App* const pCommand : app.get_subcommands([](const CLI::App*) { return true; })) {
        strError += pszBefore + pCommand->get_name();
        pszBefore = ", ";
    }
    return strError + "\nRun with --help for more information.\n";
}

// Parses the arguments, without the program's name, then calls check, which may throw CLI's errors too. False: the
// program has to exit with nExit, and the help, the version or an error message has been printed.
template <typename Check>
bool Parse(CLI::App& app, std::vector<std::string> arguments, Check check, int& nExit) {
    try {
        std::reverse(arguments.begin(), arguments.end());  // CLI11 takes them from the end
        app.parse(std::move(arguments));
        check();
        return true;
    } catch (const CLI::Success& success) {
        std::ostringstream text;
        app.exit(success, text, text);
        nExit = PrintHelp(app.get_name().c_str(), text.str());
    } catch (const CLI::ParseError& error) {
        // The message quotes the user's arguments.
        std::ostringstream text;
        app.exit(error, text, text);
        const std::string strError = CommandError(app);
        std::cerr << app.get_name() << ": " << VisibleUsageError(strError.empty() ? text.str() : strError);
        nExit = kExitUsage;
    }
    return false;
}

}  // namespace tools
