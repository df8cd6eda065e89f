// The objects file: the loaded ELF objects of the process (load address,
// GNU build id, path), so that recorded code addresses can be turned back
// into source locations. "objects.<pid>" in the run directory:
//
//   ryl-objects 1
//   pid <pid>
//   object <load address 0x...> <build id or -> <path>   (at start, main program first)
//   files <n> ...                                        (at the end: this process's trace files)
//   object ...                                           (at the end: objects loaded since)
//   end
//
// The start part goes out in one write, so a killed process leaves it whole.
#pragma once

namespace objects_file {

// Writes the start part and arranges for the end part at exit. Only the
// first call does anything; nothing is thrown.
void start();

// In a child of fork (without exec), whose file so far is its parent's:
// starts the child's own. Cheap when there is nothing to do; called where
// the child's OpenMP work begins (its regions and tasks).
void start_after_fork();

}  // namespace objects_file
