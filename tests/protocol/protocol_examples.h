// The documented back-end exchanges of docs/backend-protocol.md.
//
// Each example runs a real handler (or the host's capability query) against
// a FakeBackend: it captures the request package of the documented command
// exactly as the handler encodes it, answers that command with a given answer
// frame (decoded as the socket transport decodes it: result in hdrWord0), and
// reports what the handler made of the answer. The generator program prints
// the examples as markdown; the document test re-runs them with the answer
// frames printed in the document.
#ifndef ZERVA_TESTS_PROTOCOL_PROTOCOL_EXAMPLES_H_
#define ZERVA_TESTS_PROTOCOL_PROTOCOL_EXAMPLES_H_

#include <string>
#include <vector>

namespace zerva_protocol {

typedef std::vector<unsigned char> Bytes;

// What one run of an example produced.
struct ExampleRun {
  Bytes request;                     // the documented command's request frame
  std::vector<std::string> outcome;  // "result N", then one line per row or fact
  std::string error;                 // set when the documented command was not sent
};

// One documented exchange.
struct Example {
  std::string label;                       // "switch-read": names the blocks "switch-read.request" etc.
  std::string sender;                      // who sends the command, for the text
  std::string setting;                     // the other answers of the scenario, for the text
  Bytes (*defaultAnswer)();                // a representative answer frame
  ExampleRun (*run)(const Bytes& answer);  // runs the scenario with that answer
};

// Every documented example, in document order.
const std::vector<Example>& Examples();

// Loads the device configuration shipped with the host (the command codes
// the document names). Returns false with *error when it cannot be read.
bool LoadShippedDeviceConfig(std::string* error);

// hexdump -C style text of bytes: 16 bytes a line ("%08x", two groups of 8,
// "|ascii|"), repeated lines not collapsed, closed by the total length.
std::string HexDump(const Bytes& bytes);
// Parses HexDump text back, checking offsets, the ASCII column and the
// closing length. Returns false with *error on any mismatch.
bool ParseHexDump(const std::string& text, Bytes* bytes, std::string* error);

// A readable decoding of one frame: the header fields, then each record and
// its cells, one line each. A frame that does not decode says so.
std::string DescribeFrame(const Bytes& frame);

// The markdown of one example (between its generated-region markers).
std::string ExampleMarkdown(const Example& example);

// A fenced block of the document whose info string carries "label=NAME".
struct DocBlock {
  std::string label;
  std::string text;  // the block's lines, each ending in '\n'
  int line = 0;      // line number of the opening fence
};
// Every labelled fenced block of a markdown text, in order.
std::vector<DocBlock> ParseDocBlocks(const std::string& markdown);

// Replaces the text between "<!-- generated:begin LABEL -->" and
// "<!-- generated:end LABEL -->" with ExampleMarkdown of each example.
// Returns false with *error when a marker pair is missing.
bool UpdateGeneratedRegions(std::string* markdown, std::string* error);
// The text between the markers of label ("" with *error when absent).
std::string GeneratedRegion(const std::string& markdown, const std::string& label, std::string* error);

}  // namespace zerva_protocol

#endif  // ZERVA_TESTS_PROTOCOL_PROTOCOL_EXAMPLES_H_
