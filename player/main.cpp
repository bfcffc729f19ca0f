// SPDX-License-Identifier: Apache-2.0
// korvane-tv: parses the command line, carries the command out, ends with its exit status.
#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include "player/base/Errors.h"
#include "player/command/AgainstCommand.h"
#include "player/command/CommandLine.h"
#include "player/command/ExitStatus.h"
#include "player/command/ExploreCommand.h"
#include "player/command/LibraryChoice.h"
#include "player/command/Message.h"
#include "player/command/PlayCommand.h"
#include "player/command/RunCommand.h"
#include "player/media/VideoReader.h"
#include "tv/Log.h"

namespace korvane::player {
namespace {

/// Opens standard files that are closed, so that no output opened later takes the number of one
/// and receives what is meant for the screen.
void holdStandardFiles() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY);  // takes the lowest free number
        }
    }
}

CommandLine readCommandLine(int argc, char** argv) {
    const std::string version = "korvane-tv " KORVANE_VERSION " (" + ffmpegVersions() + ")";
    CommandLine line = parseCommandLine(argc, argv, version);
    line.play.version = KORVANE_VERSION;
    line.run.version = KORVANE_VERSION;
    return line;
}

std::string libraryOf(const CommandLine& line) {
    if (line.command == Command::Explore) {
        return line.text.empty() ? exploredLibrary(line.explore) : "";
    }
    return line.command == Command::Run ? line.run.library : line.play.library;
}

int carryOut(const CommandLine& line, char** argv) {
    const bool comparing = line.command == Command::Play && !line.play.against.empty();
    if (!comparing) {
        useLibrary(libraryOf(line), argv);
    }
    // The log keeps what was logged while the libraries were loaded until it is opened.
    tv::openLog(lowestLogPriority(line.play));
    if (!line.text.empty()) {
        std::cout << line.text;
        return kExitOk;
    }
    switch (line.command) {
        case Command::Run:
            return runScenarios(line.run, std::cout);
        case Command::List:
            return listScenarios(line.list, std::cout);
        case Command::Compare:
            return compareFiles(line.compare, std::cout);
        case Command::Explore:
            return explorePrograms(line.explore, std::cout);
        case Command::Play:
            break;
    }
    return comparing ? playAgainst(line.play, argv, std::cout) : playFile(line.play);
}

int fail(const std::exception& error, int status) {
    // After a wrong command line the log is still closed; only warnings are wanted then.
    tv::openLog(ANDROID_LOG_WARN);
    say(error.what());
    return status;
}

int run(int argc, char** argv) {
    try {
        const int status = carryOut(readCommandLine(argc, argv), argv);
        if (!std::cout.flush()) {
            say("standard output could not be written whole; free some space and try again");
            return kExitFailed;
        }
        return status;
    } catch (const UsageError& error) {
        return fail(error, kExitUsage);
    } catch (const InputError& error) {
        return fail(error, kExitUsage);
    } catch (const ScenarioError& error) {
        return fail(error, kExitUsage);
    } catch (const std::exception& error) {
        return fail(error, kExitFailed);
    }
}

}  // namespace
}  // namespace korvane::player

#if defined(__SANITIZE_THREAD__)
/// FFmpeg is not built with the thread sanitizer, which sees the memory that its decoder threads
/// hand round but not the atomics by which they do.
extern "C" const char* __tsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
    return "called_from_lib:libavcodec.so\n"
           "called_from_lib:libavformat.so\n"
           "called_from_lib:libavutil.so\n";
}
#endif

int main(int argc, char** argv) {
    korvane::player::holdStandardFiles();
    return korvane::player::run(argc, argv);
}
