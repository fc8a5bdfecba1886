# What the Linux bodies need: ICU for text, SQLite for the simulated phone's keychain and records.
find_package(PkgConfig REQUIRED)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-i18n icu-uc)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
set(MORVANE_PLATFORM_LIBRARIES PkgConfig::ICU PkgConfig::SQLITE)
if(MORVANE_STATIC)
  # pkg-config's static list names more than is used; these are what the archives refer to.
  set(MORVANE_PLATFORM_LIBRARIES icui18n icuuc icudata sqlite3 m)
endif()

include(${MORVANE_PLATFORM}/entitlements.cmake)
set(MORVANE_PLATFORM_EXTRA ${MORVANE_PLATFORM}/database.cpp ${MORVANE_ENTITLED_GROUPS})
