# cJSON as the imported target vexo::cjson: the kit declarations include <cjson/cJSON.h> and
# the module calls it. Used by this project's build and by the installed CMake package, so
# that both find it the same way (on the system, or in a cross sysroot).
if(NOT TARGET vexo::cjson)
    find_path(VEXO_CJSON_INCLUDE_DIR cjson/cJSON.h)
    find_library(VEXO_CJSON_LIBRARY cjson)
    if(VEXO_CJSON_INCLUDE_DIR AND VEXO_CJSON_LIBRARY)
        add_library(vexo::cjson UNKNOWN IMPORTED)
        set_target_properties(vexo::cjson PROPERTIES
            IMPORTED_LOCATION ${VEXO_CJSON_LIBRARY}
            INTERFACE_INCLUDE_DIRECTORIES ${VEXO_CJSON_INCLUDE_DIR})
    endif()
endif()
