#pragma once

// Holds the package files of the filters folder for one read-modify-write:
// whoever changes a package file reads it, changes it and writes it back
// while holding this lock, so that the host application, the toolbar
// extension and the command line never lose each other's changes.
//
// One lock for every package file, shared by all processes of the data root
// (an flock on "package-files.lock" in the group container). Within a
// process it is re-entrant on one thread: an edit that saves through another
// edit does not deadlock. Other threads of the process wait like other
// processes do.
namespace tamsel::storage {

class PackageFilesLock {
public:
    PackageFilesLock();
    ~PackageFilesLock();

    PackageFilesLock(const PackageFilesLock&) = delete;
    PackageFilesLock& operator=(const PackageFilesLock&) = delete;

    // Whether the calling thread holds the lock.
    static bool isHeld();
};

}  // namespace tamsel::storage
