// The device filter lists: reading the four configuration files, their line grammars, the tables
// and the queries on them.
#include "LoadConfig.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <mutex>
#include <regex>
#include <set>
#include <utility>

#include "Common.h"
#include "Pelmora.h"
#include "Quenwick.h"

const std::string AndroidVID = "AndroidVID.ini";
const std::string AndroidPIDBlack = "AndroidPIDBlack.ini";
const std::string AndroidPIDWhite = "AndroidPIDWhite.ini";
const std::string iManufactureAndiProduct = "iManufactureAndiProduct.ini";

namespace {

using PidTable = std::map<unsigned int, std::vector<unsigned int>>;

// The tables live on the heap and are never destroyed: the watcher and poll threads may still
// read them while the process exits.
std::shared_mutex& s_tables_mutex = *new std::shared_mutex;
std::map<unsigned int, std::string>& s_vid_manufacturer_map = *new std::map<unsigned int, std::string>;
PidTable& s_pid_black_manufacturer_map = *new PidTable;
PidTable& s_pid_white_manufacturer_map = *new PidTable;
// The manufacturer/product texts of "iManufactureAndiProduct.ini". Loaded (so a broken file is
// refused at start) but consulted by no decision today, not by the validity check either: only
// GetManufactureProductList reads it, for diagnostics and tests.
std::map<std::string, std::vector<std::string>>& s_imanufacture_iprduct_map =
    *new std::map<std::string, std::vector<std::string>>;

const std::string kLinePattern = "[\r\n]+";
const std::string kFieldPattern = "=";

using WriteLock = std::unique_lock<std::shared_mutex>;

// White space as the regular expressions of these files see it (the "C" locale's \s).
bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Decimal digits as an unsigned value. Values past 32 bits stay at 4294967295, which no 16-bit
// USB ID equals, rather than wrapping round into a false match.
unsigned int DecimalValue(const std::string& digits) {
  uint64_t value = 0;
  for (char c : digits) {
    value = value * 10 + static_cast<uint64_t>(c - '0');
    if (value > std::numeric_limits<unsigned int>::max()) return std::numeric_limits<unsigned int>::max();
  }
  return static_cast<unsigned int>(value);
}

// The vendor ID written at the start of a PID-file key: an optional sign and the digits that
// follow, as atoi reads it (0 when there is none); far too large values stay at the int64 limits.
int64_t LeadingVendorId(const std::string& key) {
  size_t i = 0;
  bool negative = false;
  if (i < key.size() && (key[i] == '+' || key[i] == '-')) negative = key[i++] == '-';
  int64_t value = 0;
  for (; i < key.size() && IsDigit(key[i]); ++i) {
    if (value > (std::numeric_limits<int64_t>::max() - 9) / 10) {
      value = std::numeric_limits<int64_t>::max();
      break;
    }
    value = value * 10 + (key[i] - '0');
  }
  return negative ? -value : value;
}

// Whether text[from..] is: white space, "=", white space, digits, white space, end. On success the
// digits are returned through *digits.
bool MatchNumberTail(const std::string& text, size_t from, std::string* digits) {
  size_t i = from;
  while (i < text.size() && IsSpace(text[i])) ++i;
  if (i == text.size() || text[i] != '=') return false;
  ++i;
  while (i < text.size() && IsSpace(text[i])) ++i;
  const size_t digits_start = i;
  while (i < text.size() && IsDigit(text[i])) ++i;
  if (i == digits_start) return false;
  const size_t digits_end = i;
  while (i < text.size() && IsSpace(text[i])) ++i;
  if (i != text.size()) return false;
  digits->assign(text, digits_start, digits_end - digits_start);
  return true;
}

// Splits at every match of a one-character set, each run of such characters counting as one
// match when runs is true; the same pieces the general rule gives.
std::vector<std::string> SplitAtCharacters(const std::string& text, const char* set, bool runs) {
  std::vector<std::string> pieces;
  size_t start = 0;
  bool matched = false;
  for (size_t i = 0; i < text.size();) {
    if (std::char_traits<char>::find(set, std::char_traits<char>::length(set), text[i]) == nullptr) {
      ++i;
      continue;
    }
    pieces.emplace_back(text, start, i - start);
    matched = true;
    ++i;
    while (runs && i < text.size() &&
           std::char_traits<char>::find(set, std::char_traits<char>::length(set), text[i])) {
      ++i;
    }
    start = i;
  }
  if (!matched) return {text};
  if (start < text.size()) pieces.emplace_back(text, start, std::string::npos);
  return pieces;
}

std::vector<std::string> SplitWithRegex(const std::string& text, const std::string& pattern) {
  const std::regex expression(pattern, std::regex::ECMAScript);
  std::vector<std::string> pieces;
  size_t start = 0;
  bool matched = false;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), expression);
       it != std::sregex_iterator(); ++it) {
    const size_t match_start = static_cast<size_t>(it->position(0));
    pieces.emplace_back(text, start, match_start - start);
    start = match_start + static_cast<size_t>(it->length(0));
    matched = true;
  }
  if (!matched) return {text};
  if (start < text.size()) pieces.emplace_back(text, start, std::string::npos);
  return pieces;
}

std::string FilePath(const char* folder, const std::string& name) {
  return std::string(folder) + "/" + name;
}

// Reads folder/name into lines; PELMORA_ERR_CONFIG_FILE when it cannot be opened.
int ReadLines(const char* folder, const std::string& name, std::vector<std::string>* lines) {
  if (folder == nullptr) return PELMORA_ERR_CONFIG_FILE;
  std::string text;
  const int ret = ReadTotalFile(FilePath(folder, name).c_str(), &text);
  if (ret == 0) *lines = split(text, kLinePattern);
  return ret;
}

// The product IDs that a PID file lists for vendor vid, in file order.
int ParsePidFile(const char* folder, const std::string& name, unsigned int vid,
                 std::vector<unsigned int>* pids) {
  std::vector<std::string> lines;
  const int ret = ReadLines(folder, name, &lines);
  if (ret != 0) return ret;
  std::string key, number;
  for (const std::string& line : lines) {
    if (MatchKeyNumberLine(line, &key, &number) && LeadingVendorId(key) == static_cast<int64_t>(vid)) {
      pids->push_back(DecimalValue(number));
    }
  }
  return 0;
}

int LoadPidConfig(const char* folder, const std::string& name, unsigned int vid, PidTable& table) {
  std::vector<unsigned int> pids;
  const int ret = ParsePidFile(folder, name, vid, &pids);
  if (ret != 0) return ret;
  WriteLock lock(s_tables_mutex);
  table[vid] = std::move(pids);
  return 0;
}

bool Contains(const PidTable& table, unsigned int vid, unsigned int pid) {
  const auto entry = table.find(vid);
  if (entry == table.end()) return false;
  for (unsigned int listed : entry->second) {
    if (listed == pid) return true;
  }
  return false;
}

std::vector<unsigned int> CopyPidList(const PidTable& table, unsigned int vid, bool* present) {
  ConfigTablesReadLock lock(s_tables_mutex);
  const auto entry = table.find(vid);
  if (present != nullptr) *present = entry != table.end();
  return entry != table.end() ? entry->second : std::vector<unsigned int>{};
}

}  // namespace

int ReadTotalFile(const char* path, std::string* text) {
  if (path == nullptr || text == nullptr) return PELMORA_ERR_CONFIG_FILE;
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return PELMORA_ERR_CONFIG_FILE;
  // A folder or a device opens too, but has no size to read: not a configuration file.
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode)) {
    std::fclose(file);
    return PELMORA_ERR_CONFIG_FILE;
  }
  std::fseek(file, 0, SEEK_END);
  const long size = std::ftell(file);
  if (size > 0) {
    text->resize(static_cast<size_t>(size));
    std::fseek(file, 0, SEEK_SET);
    const size_t read = std::fread(&(*text)[0], 1, static_cast<size_t>(size), file);
    (void)read;  // a short read leaves NUL bytes, as a truncated file would read anyway
  }
  std::fclose(file);
  return 0;
}

std::vector<std::string> split(const std::string& text, const std::string& pattern) {
  // The two patterns of the loaders, without a regular-expression engine: libstdc++'s matcher
  // recurses per character and would overflow the stack on a long run of line breaks.
  if (pattern == kLinePattern) return SplitAtCharacters(text, "\r\n", true);
  if (pattern == kFieldPattern) return SplitAtCharacters(text, "=", false);
  return SplitWithRegex(text, pattern);
}

bool MatchKeyNumberLine(const std::string& line, std::string* key, std::string* number) {
  // Equivalent to a whole-line match of "[\s]*([\S]+)[\s]*=[\s]*([0-9]+)[\s]*": the leading
  // white space is taken whole, the key is the longest prefix of the next run of non-space bytes
  // that leaves a valid tail, exactly the choice a backtracking matcher makes.
  size_t key_start = 0;
  while (key_start < line.size() && IsSpace(line[key_start])) ++key_start;
  size_t run_end = key_start;
  while (run_end < line.size() && !IsSpace(line[run_end])) ++run_end;
  std::string digits;
  for (size_t key_end = run_end; key_end > key_start; --key_end) {
    if (MatchNumberTail(line, key_end, &digits)) {
      key->assign(line, key_start, key_end - key_start);
      *number = std::move(digits);
      return true;
    }
  }
  return false;
}

bool MatchTwoFieldLine(const std::string& line, std::string* left, std::string* right) {
  std::vector<std::string> pieces = split(line, kFieldPattern);
  if (pieces.size() != 2) return false;
  *left = std::move(pieces[0]);
  *right = std::move(pieces[1]);
  return true;
}

int LoadVIDConfig(const char* folder) {
  std::vector<std::string> lines;
  const int ret = ReadLines(folder, AndroidVID, &lines);
  if (ret != 0) return ret;

  // The vendors this load adds, in file order; the first line of a vendor ID wins.
  std::vector<std::pair<unsigned int, std::string>> added;
  std::set<unsigned int> listed;  // every vendor the file names, known or not, for the log
  {
    ConfigTablesReadLock lock(s_tables_mutex);
    std::string key, number;
    for (const std::string& line : lines) {
      if (!MatchKeyNumberLine(line, &key, &number)) continue;
      const unsigned int vid = DecimalValue(number);
      listed.insert(vid);
      bool known = s_vid_manufacturer_map.count(vid) > 0;
      for (const auto& entry : added) known = known || entry.first == vid;
      if (!known) added.emplace_back(vid, key);
    }
  }

  // Read each new vendor's PID lists before taking the write lock, so readers see the load whole.
  struct VendorLists {
    int black_ret = 0, white_ret = 0;
    std::vector<unsigned int> black, white;
  };
  std::vector<VendorLists> lists(added.size());
  size_t black_pids = 0, white_pids = 0;
  for (size_t i = 0; i < added.size(); ++i) {
    lists[i].black_ret = ParsePidFile(folder, AndroidPIDBlack, added[i].first, &lists[i].black);
    lists[i].white_ret = ParsePidFile(folder, AndroidPIDWhite, added[i].first, &lists[i].white);
    black_pids += lists[i].black.size();
    white_pids += lists[i].white.size();
  }
  // A file of the wrong kind reads without error and names no vendor: say so, or the only sign
  // would be phones that are never reported.
  if (listed.empty()) {
    LogEx(kLogCategory, QUENWICK_LEVEL_WARNING, "%s gave no vendor: no USB device will be taken for a phone.",
          AndroidVID.c_str());
  }
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s gave %zu vendors (%zu new); %s %zu products and %s %zu for the new ones.",
        AndroidVID.c_str(), listed.size(), added.size(), AndroidPIDBlack.c_str(), black_pids,
        AndroidPIDWhite.c_str(), white_pids);

  WriteLock lock(s_tables_mutex);
  for (size_t i = 0; i < added.size(); ++i) {
    const unsigned int vid = added[i].first;
    if (!s_vid_manufacturer_map.emplace(vid, added[i].second).second) continue;
    if (lists[i].black_ret == 0) s_pid_black_manufacturer_map[vid] = std::move(lists[i].black);
    if (lists[i].white_ret == 0) s_pid_white_manufacturer_map[vid] = std::move(lists[i].white);
  }
  return 0;
}

int LoadBlackPIDConfig(const char* folder, int vid) {
  return LoadPidConfig(folder, AndroidPIDBlack, static_cast<unsigned int>(vid),
                       s_pid_black_manufacturer_map);
}

int LoadWhitePIDConfig(const char* folder, int vid) {
  return LoadPidConfig(folder, AndroidPIDWhite, static_cast<unsigned int>(vid),
                       s_pid_white_manufacturer_map);
}

int LoadiManufactureAndiProductConfig(const char* folder) {
  std::vector<std::string> lines;
  const int ret = ReadLines(folder, iManufactureAndiProduct, &lines);
  if (ret != 0) return ret;
  std::vector<std::pair<std::string, std::string>> entries;
  std::string left, right;
  for (const std::string& line : lines) {
    // Each field is kept as a NUL-terminated text: a NUL byte inside a field ends it.
    if (MatchTwoFieldLine(line, &left, &right)) entries.emplace_back(left.c_str(), right.c_str());
  }
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s gave %zu manufacturer and product pairs.",
        iManufactureAndiProduct.c_str(), entries.size());
  WriteLock lock(s_tables_mutex);
  for (auto& [manufacturer, product] : entries) {
    s_imanufacture_iprduct_map[manufacturer].push_back(std::move(product));
  }
  return 0;
}

ConfigTablesReadLock LockConfigTablesForReading() { return ConfigTablesReadLock(s_tables_mutex); }

const std::map<unsigned int, std::string>& GetVIDConfigMap() { return s_vid_manufacturer_map; }

std::vector<unsigned int> GetBlackPidList(unsigned int vid, bool* present) {
  return CopyPidList(s_pid_black_manufacturer_map, vid, present);
}

std::vector<unsigned int> GetWhitePidList(unsigned int vid, bool* present) {
  return CopyPidList(s_pid_white_manufacturer_map, vid, present);
}

std::vector<std::string> GetManufactureProductList(const std::string& manufacturer) {
  ConfigTablesReadLock lock(s_tables_mutex);
  const auto entry = s_imanufacture_iprduct_map.find(manufacturer);
  return entry != s_imanufacture_iprduct_map.end() ? entry->second : std::vector<std::string>{};
}

bool IsDeviceOnWhitePidList(unsigned int vid, unsigned int pid) {
  ConfigTablesReadLock lock(s_tables_mutex);
  return s_vid_manufacturer_map.count(vid) > 0 && Contains(s_pid_white_manufacturer_map, vid, pid);
}

bool IsDeviceOnNon_AndroidList(unsigned int vid, unsigned int pid, std::string serial) {
  bool black_listed = false;
  {
    ConfigTablesReadLock lock(s_tables_mutex);
    if (s_vid_manufacturer_map.count(vid) == 0) return true;
    black_listed = Contains(s_pid_black_manufacturer_map, vid, pid);
  }
  if (black_listed) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Find non-android deivce key serial:%s\r vid:%hu\r pid:%hu",
          serial.c_str(), static_cast<unsigned short>(vid), static_cast<unsigned short>(pid));
  }
  return black_listed;
}
