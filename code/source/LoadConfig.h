// The device filter lists: four line-oriented files in the configuration folder, their tables and
// the queries the validity check and the report make.
//
// The tables are written by InitPelmora and read by the watcher and poll threads. A second
// InitPelmora may run while those threads read, so every table access goes through one
// reader-writer lock: loaders hold it exclusively while they change the tables, queries hold it
// shared. GetVIDConfigMap hands out the map itself; hold a ConfigTablesReadLock while using it.
#pragma once

#include <map>
#include <shared_mutex>
#include <string>
#include <vector>

extern const std::string AndroidVID;               // "AndroidVID.ini"
extern const std::string AndroidPIDBlack;          // "AndroidPIDBlack.ini"
extern const std::string AndroidPIDWhite;          // "AndroidPIDWhite.ini"
extern const std::string iManufactureAndiProduct;  // "iManufactureAndiProduct.ini"

// Reads the whole file into *text (empty on entry). 0 when it could be opened,
// PELMORA_ERR_CONFIG_FILE when not.
int ReadTotalFile(const char* path, std::string* text);

// Cuts text at every match of the loaders' two patterns, "[\r\n]+" (lines) and "=" (fields), as
// an ECMAScript regular expression would: the pieces between matches (empty ones too), and the
// rest after the last match when it is not empty; the whole text when the pattern matches nowhere
// (or is neither of the two).
std::vector<std::string> split(const std::string& text, const std::string& pattern);

// The key-number grammar "[\s]*([\S]+)[\s]*=[\s]*([0-9]+)[\s]*" over a whole line: true with the
// two group texts when the line is accepted.
bool MatchKeyNumberLine(const std::string& line, std::string* key, std::string* number);

// Two-field grammar: exactly two pieces when cut at "=".
bool MatchTwoFieldLine(const std::string& line, std::string* left, std::string* right);

int LoadVIDConfig(const char* folder);
int LoadiManufactureAndiProductConfig(const char* folder);

// Shared lock over every table of this module, for callers of GetVIDConfigMap. The queries below
// take it themselves: do not call them while holding it (a shared_mutex is not recursive).
using ConfigTablesReadLock = std::shared_lock<std::shared_mutex>;
ConfigTablesReadLock LockConfigTablesForReading();

const std::map<unsigned int, std::string>& GetVIDConfigMap();
// Copies of the other tables, for diagnostics and tests: the PID list of a vendor (empty when it
// has none), whether it has one at all, and the product texts listed for a manufacturer text.
std::vector<unsigned int> GetBlackPidList(unsigned int vid, bool* present = nullptr);
std::vector<unsigned int> GetWhitePidList(unsigned int vid, bool* present = nullptr);
std::vector<std::string> GetManufactureProductList(const std::string& manufacturer);
bool IsDeviceOnWhitePidList(unsigned int vid, unsigned int pid);
bool IsDeviceOnNon_AndroidList(unsigned int vid, unsigned int pid, std::string serial);
