# Run by CPack: whatever the umask of who builds, everybody may look into the folders that the package brings.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_DIRECTORY}
     DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
