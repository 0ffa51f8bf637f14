#pragma once
// A whole-number setting of the host's configuration, for the module's
// optional keys: absent means the module keeps the kernel's default.

namespace Poco {
namespace Util {
class AbstractConfiguration;
}
}  // namespace Poco

namespace Engine {

// The value of `key` if it is a whole number in [min, max]; otherwise `unset`,
// with an error line when the key is there but its value is not usable.
int ConfiguredNumber(const Poco::Util::AbstractConfiguration& config, const char* key, int min, int max, int unset);

}  // namespace Engine
