#pragma once

#include <string>

/// Hardware that isn't there, in the text form from which a CpuTopology is built.
///
/// A description has a line for each step: "machine <synthetic description of hwloc>", "without <object
/// type>", "restrict <mask>", "restrict-nodes <mask>" to these NUMA nodes, "allow <mask>", "kind <mask>
/// <speed>" of cores (-1: unknown), "edit <text> => <other text>" of the XML. Other lines are passed over.
/// @throw std::runtime_error for a description that hwloc refuses
std::string makeTestMachine(const std::string& description);
