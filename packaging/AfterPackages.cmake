# After cpack has made the packages, which are not in their place yet: what they are made of.
execute_process(COMMAND ${CPACK_VEX_SBOM} ${CPACK_PACKAGE_DIRECTORY} ${CPACK_PACKAGE_FILES} COMMAND_ERROR_IS_FATAL ANY)
