// SPDX-License-Identifier: Apache-2.0
#include "player/command/AgainstCommand.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "player/base/Errors.h"
#include "player/command/CompareCommand.h"
#include "player/command/ExitStatus.h"
#include "player/command/OutputFolder.h"

namespace korvane::player {
namespace {

namespace fs = std::filesystem;
using ProgramWords = std::vector<std::string>;

/// The two playbacks' folder: that of --report, or one that is removed again.
class PairFolder {
public:
    explicit PairFolder(const std::string& report) : mHeld("--report", report), mPath(report) {
        if (report.empty()) {
            mPath = (fs::temp_directory_path() / "korvane-tv-XXXXXX").string();
            if (mkdtemp(mPath.data()) == nullptr) {
                throw std::system_error(errno, std::generic_category(), mPath);
            }
            mTemporary = true;
        }
        mHeld.keep();
        for (const char* name : {"before", "after"}) {
            std::error_code error;
            fs::create_directory(fs::path(mPath) / name, error);
        }
    }
    ~PairFolder() {
        std::error_code error;
        if (mTemporary) {
            fs::remove_all(mPath, error);
        }
    }
    PairFolder(const PairFolder&) = delete;
    PairFolder& operator=(const PairFolder&) = delete;

    std::string at(const char* name) const { return inFolder(mPath, name); }
    bool temporary() const { return mTemporary; }

private:
    OutputFolder mHeld;
    std::string mPath;
    bool mTemporary = false;
};

/// The command line without these options and their values.
ProgramWords without(char** argv, const std::vector<std::string>& options) {
    ProgramWords words;
    for (char** word = argv; *word != nullptr; ++word) {
        const std::string text = *word;
        bool taken = false;
        for (const auto& option : options) {
            taken =
                taken || text == option || text.compare(0, option.size() + 1, option + "=") == 0;
            word += text == option && word[1] != nullptr ? 1 : 0;
        }
        if (!taken) {
            words.push_back(text);
        }
    }
    return words;
}

/// @return its exit status; 128 and the signal's number if a signal ended it
int runProgram(ProgramWords words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot start a process");
    }
    if (child == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        execv("/proc/self/exe", argv.data());
        _exit(kExitFailed);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// A playback that went wrong can be compared; one that did not end as it should cannot.
bool comparable(int status) {
    return status == kExitOk || status == kExitFailed || status == kExitCutShort;
}

void refuseOutputs(const PlayOptions& options) {
    if (options.file == "-") {
        throw UsageError("--against plays twice, and standard input can be read once; give a file");
    }
    for (const auto& [option, file] :
         {std::pair("--trace", &options.traceFile), std::pair("--csv", &options.csvFile),
          std::pair("--json", &options.jsonFile), std::pair("--events", &options.eventsFile),
          std::pair("--record", &options.recordFile), std::pair("--strip", &options.stripFile),
          std::pair("--ledger", &options.ledgerFile)}) {
        if (!file->empty()) {
            throw UsageError(std::string(option) +
                             ": --against plays twice and writes --report DIR; leave it out");
        }
    }
}

}  // namespace

int playAgainst(const PlayOptions& options, char** argv, std::ostream& out) {
    refuseOutputs(options);
    const PairFolder folder(options.reportFolder);
    for (const auto& [name, library] :
         {std::pair("before", options.against), std::pair("after", options.library)}) {
        ProgramWords words = without(argv, {"--against", "--library", "--report"});
        if (!library.empty()) {
            words.insert(words.end(), {"--library", library});
        }
        if (folder.temporary()) {
            words.insert(words.end(), {"--events", folder.at(name) + "/events.txt", "--json",
                                       folder.at(name) + "/summary.json"});
        } else {
            words.insert(words.end(), {"--report", folder.at(name)});
        }
        const int status = runProgram(std::move(words));
        if (!comparable(status)) {
            return status;
        }
    }
    CompareOptions compare;
    compare.a = folder.at("before");
    compare.b = folder.at("after");
    compare.aName = options.against;
    compare.bName =
        options.library.empty() ? "the library linked with korvane-tv" : options.library;
    compare.reportFolder = options.reportFolder;
    return compareFiles(compare, out);
}

}  // namespace korvane::player
