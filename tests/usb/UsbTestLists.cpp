#include "UsbTestLists.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

#include "LoadConfig.h"

void LoadUsbTestFilterLists() {
  static std::once_flag once;
  std::call_once(once, [] {
    namespace fs = std::filesystem;
    const fs::path dir =
        fs::temp_directory_path() / ("pelmora-usb-lists-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "AndroidVID.ini") << "Acme=6353\n";
    std::ofstream(dir / "AndroidPIDWhite.ini") << "6353=20199\n";
    std::ofstream(dir / "AndroidPIDBlack.ini") << "6353=11\n6353=20199\n";
    std::ofstream(dir / "iManufactureAndiProduct.ini") << "";
    const int vid = LoadVIDConfig(dir.c_str());
    const int strings = LoadiManufactureAndiProductConfig(dir.c_str());
    fs::remove_all(dir);
    if (vid != 0 || strings != 0) throw std::runtime_error("test filter lists not loaded");
  });
}
