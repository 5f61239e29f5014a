# Directories that are packed have the usual mode whatever the umask is of whoever packs them.
execute_process(COMMAND find ${CPACK_TEMPORARY_INSTALL_DIRECTORY} -type d -exec chmod 755 {} +
  COMMAND_ERROR_IS_FATAL ANY)
