# Every dependency comes from a Debian package that ./run installs.
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(CURL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
find_package(GIF 5 REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
# Cairo and pango draw the view tree into PNG snapshots; only the renderer includes them.
pkg_check_modules(PANGOCAIRO REQUIRED IMPORTED_TARGET cairo pangocairo)
# The desktop platform talks to the session bus and runs on the GLib main loop (GIO); its
# screens are GTK 3 windows, its web views WebKitGTK (in a module of their own).
if(TESSRA_DESKTOP_PLATFORM)
  pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0)
  pkg_check_modules(DESKTOP_GTK REQUIRED IMPORTED_TARGET gtk+-3.0)
  pkg_check_modules(DESKTOP_WEB REQUIRED IMPORTED_TARGET webkit2gtk-4.1 gtk+-3.0)
  # The desktop tests click with XTest: input the X server itself delivers, as a mouse's.
  if(TESSRA_BUILD_TESTS)
    pkg_check_modules(XTEST REQUIRED IMPORTED_TARGET x11 xtst)
  endif()
endif()

# cpp-httplib (Debian's build, compiled against OpenSSL, zlib and brotli) serves the sandbox
# tool and the tests' fake backend.
if((TESSRA_BUILD_TESTS OR TESSRA_BUILD_TOOLS) AND NOT TARGET PkgConfig::HTTPLIB)
  find_package(OpenSSL 3 REQUIRED)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
endif()
