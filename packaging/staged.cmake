# Run on the staged files before they are packed. Directories get the usual mode whatever the umask is
# of whoever packs them; the archive, which cpack does not strip, loses its debug information.
execute_process(COMMAND find ${CPACK_TEMPORARY_INSTALL_DIRECTORY} -type d -exec chmod 755 {} +
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND find ${CPACK_TEMPORARY_INSTALL_DIRECTORY} -name "*.a" -exec strip -g {} +
  COMMAND_ERROR_IS_FATAL ANY)
