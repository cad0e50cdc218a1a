// Text files of ours (configuration, topology) read whole and gone through
// line by line, with errors that say which file and which line.
#ifndef ZERVA_VEMPUB_VEM_TEXT_FILE_H_
#define ZERVA_VEMPUB_VEM_TEXT_FILE_H_

#include <functional>
#include <string>

// Reads the whole file at path into *text. Returns false with *error
// "<path>: cannot be read" when it cannot be opened.
bool VEMReadTextFile(const std::string& path, std::string* text, std::string* error);

// Called with one line (without its newline); returns false with *why to
// refuse it.
typedef std::function<bool(const std::string& line, std::string* why)> VEMLineVisitor;

// Hands every line of text, in order, to visit. Stops at the first line it
// refuses and returns false with *error "line N: <why>", lines numbered from 1.
bool VEMForEachLine(const std::string& text, const VEMLineVisitor& visit, std::string* error);

#endif  // ZERVA_VEMPUB_VEM_TEXT_FILE_H_
