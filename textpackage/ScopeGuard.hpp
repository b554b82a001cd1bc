#pragma once

#include <utility>

namespace opc::textpackage {

/// Runs a clean-up when its scope ends, by whatever road. An exception from the clean-up is swallowed, so that the one
/// that ended the scope goes on.
template <class CleanUp>
class ScopeGuard {
public:
    explicit ScopeGuard(CleanUp cleanUp) : cleanUp_(std::move(cleanUp)) {}

    ScopeGuard(ScopeGuard const&) = delete;
    ScopeGuard& operator=(ScopeGuard const&) = delete;

    ~ScopeGuard() {
        try {
            cleanUp_();
        } catch (...) {
            // Meant: see above.
        }
    }

private:
    CleanUp cleanUp_;
};

} // namespace opc::textpackage
