// SPDX-License-Identifier: Apache-2.0
#include "jpagent/trace/TraceRun.h"

#include <fmt/format.h>

#include <iostream>

#include "jpagent/common/Ending.h"
#include "jpagent/common/Output.h"
#include "jpagent/trace/TraceExport.h"
#include "runtime/scrivo/TraceReader.h"

namespace Routing::Pim::Jpagent {

int runTrace(std::string const& file, TraceForm form) {
  refuseSharedFiles({{"the trace file", file}});
  traceFileIs(file);
  Scrivo::TraceReader const reader(file);
  switch (form) {
    case TraceForm::text:
      exportText(reader, std::cout);
      break;
    case TraceForm::json:
      exportJson(reader, std::cout);
      break;
    case TraceForm::chrome:
      exportChrome(reader, std::cout);
      break;
  }
  if (!std::cout.flush()) return allFine;  // main() says so.
  auto const first = reader.damages().empty()
                         ? std::string()
                         : fmt::format("{} damaged part{} passed over, the first at byte {}: {}",
                                       reader.damaged(), reader.damaged() == 1 ? " was" : "s were",
                                       reader.damages()[0].offset, reader.damages()[0].what);
  if (reader.missingBytes() != 0)
    return cannot(fmt::format("{}: cut off, the last {} bytes are missing{}{}", file, reader.missingBytes(),
                              first.empty() ? "" : "; ", first));
  if (first.empty()) return allFine;
  std::cerr << fmt::format("jpagent: {}: {}\n", file, first);
  return somethingRefused;
}

}  // namespace Routing::Pim::Jpagent
