# cpack runs this after it has made the packages, before it moves them to their place. It writes their SPDX document.
execute_process(COMMAND ${CPACK_VEX_SBOM} ${CPACK_PACKAGE_DIRECTORY} ${CPACK_PACKAGE_FILES} COMMAND_ERROR_IS_FATAL ANY)
