#pragma once
// The options of Resize, one row each: the word, how its value is read into
// the option record, whether it makes the run re-encode, whether a batch
// (resize-batch) may pass it on, and its help text. The parser, the --help
// text and resize-batch's checks (through "Resize --options") all read this
// table, so that none of them can list another set.
#include <string>
#include <vector>

class Option;

struct OptionRow {
    const wchar_t* word;
    bool prefix;             // the word begins the argument and its value follows
    bool reEncodes;          // the run re-encodes the video when it is given
    const wchar_t* notInBatch; // why resize-batch refuses it; null when a batch passes it on
    const wchar_t* value;    // the value's form, for the help ("W")
    const wchar_t* meaning;
    const wchar_t* example;
    // Reads the value (the rest of the word) into the record; false when
    // the run is to end with the usage text.
    bool (*apply)(Option& option, const std::wstring& value);
};

// The rows in the order the parser tries them: the first that matches wins.
const std::vector<OptionRow>& optionTable();
// The row that a word matches, or null (the word is then a path).
const OptionRow* optionRowFor(const std::wstring& word);

// The words that answer and end the run at once, with status 0.
void printHelp();        // --help: the usage, then every option
void printOptionTable(); // --options: the table for scripts, one row a line
