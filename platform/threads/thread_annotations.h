#pragma once

/// Annotations that say which thread may do what. The main thread is the library's only lock:
/// `MAIN_ONLY` functions run on the main thread, `BG_ONLY` functions may block and never run there,
/// `MAIN_STATE` fields belong to the main thread. Checked by Clang (`-Wthread-safety`), empty for
/// other compilers.

#if defined(__clang__)
namespace ravelin::platform {
class [[clang::capability("role")]] ThreadRole{};
inline ThreadRole main_role;
} // namespace ravelin::platform
#define MAIN_ONLY __attribute__((requires_capability(::ravelin::platform::main_role)))
#define BG_ONLY __attribute__((locks_excluded(::ravelin::platform::main_role)))
#define MAIN_STATE __attribute__((guarded_by(::ravelin::platform::main_role)))
#else
#define MAIN_ONLY
#define BG_ONLY
#define MAIN_STATE
#endif
