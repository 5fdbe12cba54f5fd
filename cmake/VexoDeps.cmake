# Third-party libraries from the system (Debian packages, or an armhf sysroot when cross
# compiling): cJSON for the module, OpenSSL's libcrypto for the kits.

find_path(VEXO_CJSON_INCLUDE_DIR cjson/cJSON.h REQUIRED)
find_library(VEXO_CJSON_LIBRARY cjson REQUIRED)
add_library(vexo::cjson UNKNOWN IMPORTED)
set_target_properties(vexo::cjson PROPERTIES
    IMPORTED_LOCATION ${VEXO_CJSON_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${VEXO_CJSON_INCLUDE_DIR})
