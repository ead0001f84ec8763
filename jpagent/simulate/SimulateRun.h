// A run of `jpagent simulate`, from the conversation's file to the exit status.
#pragma once

#include <string>

namespace Routing::Pim::Jpagent {

/// What the command line of `jpagent simulate` says.
struct SimulateOptions {
  bool check = false, rewrite = false;
  std::string pcapFile, scrivoFile;  ///< Empty for none.
};

/// Performs a conversation, and prints, compares or takes over what comes out. Returns the exit status.
/// Throws OutputError if a file cannot be written.
int runSimulate(std::string const& file, SimulateOptions const& options);

}  // namespace Routing::Pim::Jpagent
