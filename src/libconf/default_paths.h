// Where the project's programs look when they are told nothing.
#pragma once

// A build for another place gives it (CMake's YMGR_CONFIG_DIR).
#ifndef YMGR_CONFIG_DIR
#define YMGR_CONFIG_DIR "/usr/local/etc/ymgrd"
#endif

constexpr const char DEFAULT_CONFIG_DIR[] = YMGR_CONFIG_DIR; // profile, modules, plugins, key table
constexpr const char DEFAULT_MODULES_DIR[] = YMGR_CONFIG_DIR "/modules";
constexpr const char DEFAULT_RUN_DIR[] = "/run/ymgrd"; // sockets, client area
