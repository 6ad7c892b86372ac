# What is installed, by component:
#
#   plugin, agent, dev   under the prefix, in the layout that the programs find their way in
#   agent-system         what makes the agent part of a machine: unit, commands in the path, manual pages, completion
#   dev-system           where pkg-config looks
#
# The -system components lie at fixed places outside the prefix. A plain `cmake --install` leaves them out.
include(CMakePackageConfigHelpers)

set(QXP_SYSTEM_PREFIX "/usr")
set(QXP_UNIT_DIRECTORY "/lib/systemd/system")
set(QXP_GROUP "qxpmaint") # may use the agent's socket when qxpagent.conf says so
set(generated "${CMAKE_BINARY_DIR}/packaging")
file(MAKE_DIRECTORY "${generated}/link")
set(private_directory OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
set(public_directory ${private_directory} WORLD_READ WORLD_EXECUTE)

set_target_properties(qxhost qxpmaint PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(qxpagent qxpctl PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")

# Plugin: the libraries, their configuration, the keys they trust, and where they keep data.
install(TARGETS qxhost EXPORT qxhost LIBRARY DESTINATION lib COMPONENT plugin)
install(TARGETS qxpmaint LIBRARY DESTINATION lib COMPONENT plugin)
install(FILES packaging/qxpmaint.conf DESTINATION etc/plugins/qxpmaint COMPONENT plugin)
install(DIRECTORY DESTINATION etc/trusted-keys COMPONENT plugin DIRECTORY_PERMISSIONS ${public_directory})
install(DIRECTORY DESTINATION data COMPONENT plugin DIRECTORY_PERMISSIONS ${private_directory})

# Agent and tool.
install(TARGETS qxpagent qxpctl RUNTIME DESTINATION bin COMPONENT agent)
install(FILES packaging/qxpagent.conf DESTINATION etc COMPONENT agent)

configure_file(packaging/qxpagent.service.in "${generated}/qxpagent.service" @ONLY)
install(FILES "${generated}/qxpagent.service" DESTINATION "${QXP_UNIT_DIRECTORY}" COMPONENT agent-system
        EXCLUDE_FROM_ALL)
foreach(command IN ITEMS bin/qxpctl sbin/qxpagent)
  cmake_path(GET command FILENAME name)
  cmake_path(GET command PARENT_PATH directory)
  file(CREATE_LINK "${CMAKE_INSTALL_PREFIX}/bin/${name}" "${generated}/link/${name}" SYMBOLIC)
  install(FILES "${generated}/link/${name}" DESTINATION "${QXP_SYSTEM_PREFIX}/${directory}" COMPONENT agent-system
          EXCLUDE_FROM_ALL)
endforeach()
foreach(share IN ITEMS man bash-completion)
  install(DIRECTORY "${CMAKE_BINARY_DIR}/share/${share}" DESTINATION "${QXP_SYSTEM_PREFIX}/share"
          COMPONENT agent-system EXCLUDE_FROM_ALL OPTIONAL)
endforeach()
# Debian's zsh leaves site-functions to the administrator.
install(DIRECTORY "${CMAKE_BINARY_DIR}/share/zsh/site-functions/"
        DESTINATION "${QXP_SYSTEM_PREFIX}/share/zsh/vendor-completions" COMPONENT agent-system EXCLUDE_FROM_ALL OPTIONAL)

# Headers of the host SDK and of the plugin's entry points, for those who write a host.
target_include_directories(qxhost INTERFACE $<INSTALL_INTERFACE:include>)
target_compile_features(qxhost INTERFACE cxx_std_20)
install(DIRECTORY sdk/include/qxhost DESTINATION include COMPONENT dev)
install(FILES plugin/adapter/entry_points.h plugin/adapter/plugin_fun_table.h DESTINATION include/qxpmaint COMPONENT dev)
install(FILES plugin/core/plugin_init_param.h DESTINATION include/qxpmaint/plugin/core COMPONENT dev)
install(EXPORT qxhost NAMESPACE qxhost:: FILE qxhostConfig.cmake DESTINATION lib/cmake/qxhost COMPONENT dev)
write_basic_package_version_file("${generated}/qxhostConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${generated}/qxhostConfigVersion.cmake" DESTINATION lib/cmake/qxhost COMPONENT dev)
configure_file(packaging/qxhost.pc.in "${generated}/qxhost.pc" @ONLY)
install(FILES "${generated}/qxhost.pc" DESTINATION lib/pkgconfig COMPONENT dev)
file(CREATE_LINK "${CMAKE_INSTALL_PREFIX}/lib/pkgconfig/qxhost.pc" "${generated}/link/qxhost.pc" SYMBOLIC)
install(FILES "${generated}/link/qxhost.pc" DESTINATION "${QXP_SYSTEM_PREFIX}/share/pkgconfig" COMPONENT dev-system
        EXCLUDE_FROM_ALL)
