// SPDX-License-Identifier: Apache-2.0
// A file that a playback writes. It is taken in two steps, so that a refused command changes none:
//
//   constructor, claim   opened as it is; refused if it cannot be written, is the film, another
//                        output or the output of another run
//   begin                emptied, once all that was asked for is accepted
//
// A file that was created for a command that is then refused is removed again. A regular file is
// locked from `claim` on as long as this lives; pipes and devices may have several writers.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "tv/UniqueFd.h"

namespace korvane::player {

class OutputFile {
public:
    /// @param path  empty: not asked for, and nothing below does anything
    /// @throws UsageError if it cannot be written
    OutputFile(std::string option, std::string path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool wanted() const { return !mPath.empty(); }
    /// Keeps the file, which something else opens by its name and empties.
    void keep();
    /// Empties the file and opens the stream.
    /// @throws UsageError
    void begin();
    std::ostream& stream() { return mStream; }
    /// @return empty, or one line on why the file is not whole
    std::string finish();

private:
    friend void claim(const std::string& input, const std::vector<const OutputFile*>& outputs);
    void checkIsNot(const std::string& input, const std::vector<const OutputFile*>& others) const;
    void lock() const;
    [[noreturn]] void refuse(const std::string& why) const;

    const std::string mOption;
    const std::string mPath;
    tv::UniqueFd mFd;  ///< holds the lock
    struct stat mStatus {};
    bool mCreated = false;  ///< for this command, and it is not accepted yet
    std::ofstream mStream;
};

/// Checks that no output is the input, standard output or another output, and locks all against
/// other runs.
/// @throws UsageError
void claim(const std::string& input, const std::vector<const OutputFile*>& outputs);

/// Locks a folder or file against other runs, as long as the descriptor is open.
/// @return false if another run holds the lock
bool lockForThisRun(int fd);

}  // namespace korvane::player
