#pragma once

#include "model/Package.h"

#include <memory>
#include <vector>

// Where the disabled-state selections find the user's configurable and custom
// packages. The in-memory package set lives a layer above storage; it
// registers itself here so that the preference code can read it without
// depending on it.
namespace tamsel::storage {

// A list as it stood when it was asked for. Lists are never changed in
// place: a change replaces the whole list, so a holder may read its list for
// as long as it likes while other threads go on editing, and sharing one
// costs no copy of its rules.
using PackageList = std::shared_ptr<const std::vector<model::Package>>;

class PackageSource {
public:
    virtual ~PackageSource() = default;

    // Never null.
    virtual PackageList configurablePackageList() const = 0;
    virtual PackageList customPackageList() const = 0;

    // The process's source, or nullptr while none is registered. The source
    // must outlive its registration.
    static PackageSource* shared();
    static void setShared(PackageSource* source);
};

}  // namespace tamsel::storage
