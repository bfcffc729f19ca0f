// SPDX-License-Identifier: Apache-2.0
// A file that a playback writes, taken in two steps so that a refused command touches none.
//
// First each is opened as it stands: whether it can be written, and whether it is the film or
// another output under whatever name, is known before the first byte of any is lost. Only once all
// is accepted is it emptied. A file that was made for a command then refused goes again.
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
    /// @throws UsageError when it cannot be written
    OutputFile(std::string option, std::string path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool wanted() const { return !mPath.empty(); }
    /// Leaves the file to whoever empties and writes it now.
    void release();
    /// Empties the file for writing into the stream.
    /// @throws UsageError
    void begin();
    std::ostream& stream() { return mStream; }
    /// @return empty, or one line on why the file is not whole
    std::string finish();

private:
    friend void checkApart(const std::string& input, const std::vector<const OutputFile*>& outputs);
    [[noreturn]] void refuse(const std::string& why) const;

    const std::string mOption;
    const std::string mPath;
    tv::UniqueFd mFd;
    struct stat mStatus {};
    bool mMade = false;
    std::ofstream mStream;
};

/// Sees to it that no output is the input, standard output or another output.
/// @throws UsageError
void checkApart(const std::string& input, const std::vector<const OutputFile*>& outputs);

}  // namespace korvane::player
