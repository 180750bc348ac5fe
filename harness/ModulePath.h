// The module that kestrel loads, from the folder that it runs in.
#pragma once

namespace kestrel {

inline constexpr char modulePath[] = "./libnorvalepk11.so";

}  // namespace kestrel
