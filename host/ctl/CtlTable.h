#pragma once

#include <string>
#include <vector>

#include "host/ctl/CtlOutput.h"

namespace tessard {

/// One row of a table: short cells, which are never broken, and one wide cell, whose texts each begin on a
/// line of their own.
struct CtlRow {
  std::vector<std::string> cells;
  std::vector<std::string> texts;
};

/// Prints rows with their columns below each other and the wide cell wrapped at the width of the output
/// (`CtlOutput::columns`). Where that leaves too little room, the texts stand below their cells; where the
/// width is unknown, nothing is wrapped.
void printTable(const CtlOutput& output, const std::vector<CtlRow>& rows);

}  // namespace tessard
