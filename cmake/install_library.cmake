# Installs a shared library with these headers of its folder, and what CMake and pkg-config find it by.
include(CMakePackageConfigHelpers)
function(install_library target)
    list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/ OUTPUT_VARIABLE headers)
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${target})
    install(TARGETS ${target} EXPORT ${target}Targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

    set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
    set(config ${PROJECT_BINARY_DIR}/${target}Config.cmake)
    set(config_version ${PROJECT_BINARY_DIR}/${target}ConfigVersion.cmake)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/${target}Config.cmake.in ${config}
        INSTALL_DESTINATION ${package_dir})
    write_basic_package_version_file(${config_version} COMPATIBILITY SameMajorVersion)
    install(FILES ${config} ${config_version} DESTINATION ${package_dir})
    install(EXPORT ${target}Targets NAMESPACE ${target}:: DESTINATION ${package_dir})

    # relative to the .pc file, so that an installation can be put, or moved, anywhere
    set(pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH pc_to_prefix ${pc_dir} ${CMAKE_INSTALL_PREFIX})
    file(RELATIVE_PATH pc_to_include ${pc_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
    string(TOLOWER ${target}.pc pc)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.in ${PROJECT_BINARY_DIR}/${pc} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${pc} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
