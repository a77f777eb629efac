// SPDX-License-Identifier: MIT
// For every test program that destroys a motor driver. A driver deletes its private part as the
// base class, which has no virtual destructor: the size that `delete` is told is the base's, and
// the table of register lengths stays allocated. Both are meant.
extern "C" {

__attribute__((visibility("default"), used)) const char* __asan_default_options();
__attribute__((visibility("default"), used)) const char* __lsan_default_suppressions();

const char* __asan_default_options() {
  return "new_delete_type_mismatch=0";
}

// Only what the private part's own constructor allocates, which is the table: not the private part
// itself, nor the driver.
const char* __lsan_default_suppressions() {
#ifdef RUNS_UNDER_LAUNCHER
  // Functions have no names there; the tests look more closely.
  return "leak:libvarnel.so\n";
#else
  return "leak:Varnel::CMotorDriver1Chn*Private::CMotorDriver1Chn*Private\n";
#endif
}
}
