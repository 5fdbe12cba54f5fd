# Installing the module like any library, and Debian packages of it.
#
# Component "dev": the static library, the public header and the kit declarations (all in
# <includedir>/vexo-cloud-storage), the CMake package VexoCloudStorage (imported target
# vexo::cloud_storage) and the pkg-config file vexo-cloud-storage.pc.
# Component "tools" (host builds only): vexo-camsim, vexo-media and vexo-cloud.
#
#   cmake --install build/native --prefix /opt/vexo              # everything
#   cmake --install build/armhf --component dev                  # the module alone
#   cpack --config build/native/CPackConfig.cmake -B build/pkg   # one .deb per component

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VEXO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/vexo-cloud-storage)
set(VEXO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/VexoCloudStorage)

# ---- the module ----
set_target_properties(vexo_ipc_cloud_storage PROPERTIES EXPORT_NAME cloud_storage)
set_target_properties(vexo_platform_headers PROPERTIES EXPORT_NAME platform_headers)
install(TARGETS vexo_ipc_cloud_storage vexo_platform_headers
    EXPORT VexoCloudStorageTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    INCLUDES DESTINATION ${VEXO_INSTALL_INCLUDEDIR})
install(FILES
    include/vexo_ipc_cloud_storage.h
    platform/vexo_cloud.h
    platform/vexo_crypto.h
    platform/vexo_device.h
    platform/vexo_kv.h
    platform/vexo_log.h
    platform/vexo_media_info.h
    platform/vexo_platform.h
    platform/vexo_platform_common.h
    platform/vexo_ring_buffer.h
    platform/vexo_thread.h
    platform/vexo_time.h
    DESTINATION ${VEXO_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT VexoCloudStorageTargets
    NAMESPACE vexo::
    DESTINATION ${VEXO_INSTALL_CMAKEDIR} COMPONENT dev)
configure_package_config_file(cmake/VexoCloudStorageConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/VexoCloudStorageConfig.cmake
    INSTALL_DESTINATION ${VEXO_INSTALL_CMAKEDIR})
# 0.x: a new minor version may change the interface. The version file also refuses a
# package built for another pointer size (an armhf install seen by a 64-bit build).
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VexoCloudStorageConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/VexoCloudStorageConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/VexoCloudStorageConfigVersion.cmake
    cmake/VexoCJSON.cmake
    DESTINATION ${VEXO_INSTALL_CMAKEDIR} COMPONENT dev)

# The pkg-config file names absolute directories under the prefix given at install time
# (cmake --install --prefix, or /usr in a package), so it is written when installing.
install(CODE "
    set(VEXO_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    set(VEXO_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(VEXO_PC_INCLUDEDIR \"${VEXO_INSTALL_INCLUDEDIR}\")
    set(VEXO_PC_VERSION \"${PROJECT_VERSION}\")
    configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/cmake/vexo-cloud-storage.pc.in\"
        \"${CMAKE_CURRENT_BINARY_DIR}/vexo-cloud-storage.pc\" @ONLY)
" COMPONENT dev)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexo-cloud-storage.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# ---- the host tools ----
if(VEXO_BUILD_HOST)
    install(TARGETS vexo-camsim vexo-media vexo-cloud vexo-loadgen
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# ---- Debian packages: one per component ----
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*)$")
    set(vexo_deb_arch armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(vexo_deb_arch arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(vexo_deb_arch amd64)
else()
    set(vexo_deb_arch ${CMAKE_SYSTEM_PROCESSOR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vexo-cloud-storage)
set(CPACK_PACKAGE_VENDOR "vexo")
set(CPACK_PACKAGE_CONTACT "vexo IP-camera kit maintainers <kit@vexo.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Cloud-recording module of the vexo IP-camera kit")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${vexo_deb_arch})
if(VEXO_BUILD_HOST)
    set(CPACK_COMPONENTS_ALL dev tools)
else()
    set(CPACK_COMPONENTS_ALL dev)
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME vexo-cloud-storage-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libcjson-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Static library libvexo_ipc_cloud_storage.a, its header and the kit declarations, with a CMake package and a pkg-config file")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vexo-cloud-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "vexo-camsim (camera simulator), vexo-media (recording checks and export) and vexo-cloud (cloud service)")

include(CPack)
