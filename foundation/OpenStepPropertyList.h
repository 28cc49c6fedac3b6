// The text form of a property list ("OpenStep"): { key = value; }, ( a, b ), <0fbd77>, "quoted" and bare strings,
// comments, and the files of nothing but `key = value;`. Reading only; nothing writes it any more. Every leaf but data
// is a string.
//
// Usual sequence: propertyListOfAnyFormFromFile(path). Who reads what another program wrote for it takes PropertyList.h
// instead: the text form is so lenient that many a damaged file is one. Thread rule: none of these keeps state.

#pragma once

#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace vpnctl {

// Strict where the form allows it: a duplicate key, nesting past kPropertyListMaximumDepth, anything behind the value,
// bytes that are not UTF-8 are errors. An error's message is "NAME: line N: reason". BYTES may start with a byte order
// mark (UTF-8, or UTF-16 of either order); nothing but blanks and comments is an empty dictionary, no bytes at all are
// an error.
//
// In quoted strings: \a \b \f \n \r \t \v \" \' \\, a backslash before a line's end, \Uxxxx with one to four digits (a
// pair of surrogates is one character), and up to three octal digits, which name a character of the NeXTSTEP encoding.
Result<Value> propertyListFromOpenStep(std::string_view bytes, std::string_view name);

// Any of the three forms: binary by "bplist00", XML by its first tag, the text form otherwise.
Result<Value> propertyListOfAnyForm(std::string_view bytes, std::string_view name);

// Reads a whole file, with propertyListFromFile()'s errors.
Result<Value> propertyListOfAnyFormFromFile(const std::string &path);

}  // namespace vpnctl
