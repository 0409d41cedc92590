#pragma once

#include "model/Package.h"

#include <vector>

// Where the disabled-state selections find the user's configurable and custom
// packages. The in-memory package set lives a layer above storage; it
// registers itself here so that the preference code can read it without
// depending on it.
namespace tamsel::storage {

class PackageSource {
public:
    virtual ~PackageSource() = default;

    // Copies, so that a caller never reads a list while another thread
    // replaces it.
    virtual std::vector<model::Package> configurablePackages() const = 0;
    virtual std::vector<model::Package> customPackages() const = 0;

    // The process's source, or nullptr while none is registered. The source
    // must outlive its registration.
    static PackageSource* shared();
    static void setShared(PackageSource* source);
};

}  // namespace tamsel::storage
