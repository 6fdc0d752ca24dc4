#pragma once

#include "kernel/PropertyTree.h"

#include <string>
#include <string_view>

/// The text form of a tree: JSON. Private to the kernel.
///
/// A real always has a fraction or an exponent, in the shortest form that reads back as the same bits; an
/// integer has neither. JSON has no word for a real that isn't finite: it is the object {"$real":"nan"},
/// "inf" or "-inf". So that no other tree reads as one, a tree below the root whose only key is "$real",
/// behind any number of further
/// "$", is written with one "$" more.
namespace PropertyJson {

/// @throw InputError with position and reason
PropertyTree::Tree parse(std::string_view text);

enum class Style { ONE_LINE, INDENTED };
/// @throw InternalError when the tree is deeper than parse() accepts
std::string write(const PropertyTree::Tree& tree, Style style);
/// The text of one value, for messages.
std::string write(const PropertyTree::Value& value);

} // namespace PropertyJson
