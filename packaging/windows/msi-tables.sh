# Data for build-msi (sourced): the SQL that sets in the package what wixl cannot express.
# packaging/windows/msi_test.py checks the built package against these values and install.ps1.

# The data directory: inheritance broken (P), SYSTEM (SY) and Administrators (BA) full control
# (FA) on the directory, its files and subdirectories (OICI); nobody else. install.ps1 sets the
# same descriptor ($DataDirectorySddl).
data_directory_sddl='D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)'

# Service recovery: restart (1) after 5, 30 and 60 seconds; the failure count resets after a
# day; failures without a crash (a stop with an error code) count too. Applied at install (1)
# and reinstall (4).
recovery_actions='1[~]1[~]1'
recovery_delays='5000[~]30000[~]60000'
recovery_reset_seconds=86400
recovery_events=5
# SERVICE_CONFIG_FAILURE_ACTIONS_FLAG: the recovery also fires on a failed stop.
failure_actions_flag_config=4

# NeverOverwrite (128) + Permanent (16) + 64-bit (256): an edited configuration survives a
# reinstall, an upgrade and an uninstall. wixl ignores both attributes on a component.
config_component_attributes=400

# The trace session outlives the service: an uninstall stops it with logman, whose failure (no
# such session, no logman) does not stop the uninstall. Custom action type 3170: a command line
# (2) run in a directory (32), its result ignored (64), deferred (1024), as LocalSystem (2048).
stop_trace_session_command='"[System64Folder]logman.exe" stop "Morskel Vantrelo" -ets'

# Every build is a product of its own: a rebuild of the same version replaces the installed one
# too (migrate features 1 + include the maximum version 512), rather than going in beside it.
# Attributes is part of the Upgrade table's key, so the row is replaced. Uses $version (the
# package's version) from build-msi.
upgrade_code='{B72D45C7-2103-4516-B4E0-C7578727D98A}'
upgrade_attributes=513

msi_queries=(
  "DELETE FROM \`Upgrade\` WHERE \`ActionProperty\`='WIX_UPGRADE_DETECTED'"
  "INSERT INTO \`Upgrade\` (\`UpgradeCode\`, \`VersionMax\`, \`Attributes\`, \`ActionProperty\`) VALUES ('$upgrade_code', '$version', $upgrade_attributes, 'WIX_UPGRADE_DETECTED')"
  "UPDATE Component SET Attributes=$config_component_attributes WHERE Component='Config'"
  "CREATE TABLE \`MsiLockPermissionsEx\` (\`MsiLockPermissionsEx\` CHAR(72) NOT NULL, \`LockObject\` CHAR(72) NOT NULL, \`Table\` CHAR(32) NOT NULL, \`SDDLText\` CHAR(0) NOT NULL, \`Condition\` CHAR(255) PRIMARY KEY \`MsiLockPermissionsEx\`)"
  "INSERT INTO \`MsiLockPermissionsEx\` (\`MsiLockPermissionsEx\`, \`LockObject\`, \`Table\`, \`SDDLText\`) VALUES ('DataDirectoryAcl', 'DATADIR', 'CreateFolder', '$data_directory_sddl')"
  "CREATE TABLE \`MsiServiceConfigFailureActions\` (\`MsiServiceConfigFailureActions\` CHAR(72) NOT NULL, \`Name\` CHAR(255) NOT NULL, \`Event\` SHORT NOT NULL, \`ResetPeriod\` LONG, \`RebootMessage\` CHAR(255), \`Command\` CHAR(255), \`Actions\` CHAR(255), \`DelayActions\` CHAR(255), \`Component_\` CHAR(72) NOT NULL PRIMARY KEY \`MsiServiceConfigFailureActions\`)"
  "INSERT INTO \`MsiServiceConfigFailureActions\` (\`MsiServiceConfigFailureActions\`, \`Name\`, \`Event\`, \`ResetPeriod\`, \`Actions\`, \`DelayActions\`, \`Component_\`) VALUES ('ServiceRecovery', 'Vantrelo', $recovery_events, $recovery_reset_seconds, '$recovery_actions', '$recovery_delays', 'Program')"
  "CREATE TABLE \`MsiServiceConfig\` (\`MsiServiceConfig\` CHAR(72) NOT NULL, \`Name\` CHAR(255) NOT NULL, \`Event\` SHORT NOT NULL, \`ConfigType\` LONG NOT NULL, \`Argument\` CHAR(0), \`Component_\` CHAR(72) NOT NULL PRIMARY KEY \`MsiServiceConfig\`)"
  "INSERT INTO \`MsiServiceConfig\` (\`MsiServiceConfig\`, \`Name\`, \`Event\`, \`ConfigType\`, \`Argument\`, \`Component_\`) VALUES ('ServiceRecoveryOnFailedStop', 'Vantrelo', $recovery_events, $failure_actions_flag_config, '1', 'Program')"
  "INSERT INTO \`CustomAction\` (\`Action\`, \`Type\`, \`Source\`, \`Target\`) VALUES ('StopTraceSession', 3170, 'INSTALLDIR', '$stop_trace_session_command')"
  # After the service has stopped, before its files go.
  "INSERT INTO \`InstallExecuteSequence\` (\`Action\`, \`Condition\`, \`Sequence\`) VALUES ('StopTraceSession', 'REMOVE=\"ALL\"', 1950)"
  # After the service is installed, before it would be started.
  "INSERT INTO \`InstallExecuteSequence\` (\`Action\`, \`Sequence\`) VALUES ('MsiConfigureServices', 5850)"
)
