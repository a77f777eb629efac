// SPDX-License-Identifier: MIT
// For every program that destroys a motor driver or a memory's driver. A motor driver deletes its
// private part as the base class, which has no virtual destructor: the size that `delete` is told
// is the base's, and the table of register lengths stays allocated. The memory's driver leaves its
// private object. All of that is meant.
extern "C" {

__attribute__((visibility("default"), used)) const char* __asan_default_options();
__attribute__((visibility("default"), used)) const char* __lsan_default_suppressions();

const char* __asan_default_options() {
#ifdef RUNS_UNDER_LAUNCHER
  // The symbolizer can't start there, and what it says about that is no part of the output.
  return "new_delete_type_mismatch=0:symbolize=0:print_suppressions=0";
#else
  return "new_delete_type_mismatch=0";
#endif
}

// Of the motor drivers only what the private part's own constructor allocates, which is the table:
// not the private part itself, nor the driver. Of the memory what its driver's constructor does:
// the private object, and with it the driver that it points to. A leaked driver valgrind finds.
const char* __lsan_default_suppressions() {
#ifdef RUNS_UNDER_LAUNCHER
  // Functions have no names there; the tests look more closely.
  return "leak:libvarnel.so\n";
#else
  return "leak:Varnel::CMotorDriver1Chn*Private::CMotorDriver1Chn*Private\n"
         "leak:Varnel::EEPROM::C64kByte_At25640B::C64kByte_At25640B()\n";
#endif
}
}
