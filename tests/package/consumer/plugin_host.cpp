// Loads the plugin, lets it report, unloads it at once, and exits: the library that the plugin
// brought in must stay mapped while its threads finish, and its exit flush must still run.
//   plugin_host PLUGIN DATA_DIR
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 3)
    return 2;
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  using Track = void (*)(const char*);
  const auto track = reinterpret_cast<Track>(dlsym(plugin, "plugin_track"));
  if (track == nullptr)
    return 1;
  track(argv[2]);
  dlclose(plugin);
  if (dlopen("libquorvel.so.4", RTLD_NOW | RTLD_NOLOAD) == nullptr) {
    std::fprintf(stderr, "libquorvel was unloaded with the plugin\n");
    return 1;
  }
  return 0;
}
