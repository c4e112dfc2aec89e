<#
.SYNOPSIS
  Installs or removes the vantrelo DNS telemetry agent as a Windows service.

.DESCRIPTION
  Installing copies vantrelo.exe to "$env:ProgramFiles\Vantrelo" and, unless one is there
  already, the default configuration to "$env:ProgramData\Vantrelo\vantrelo.conf"; limits the
  data directory to SYSTEM and Administrators; registers the event log source
  "Morskel Vantrelo" (its messages come from vantrelo.exe) and creates the service "Vantrelo"
  (automatic start, LocalSystem, restarted after a failure), which runs
  "vantrelo.exe run-service <configuration>". The service is not started: edit the
  configuration first, then Start-Service Vantrelo. The Windows Installer package
  (vantrelo-<version>-x64.msi) does the same.

  -Uninstall stops and deletes the service, stops the trace session "Morskel Vantrelo",
  removes the event source and the program directory. The configuration directory
  (configuration and saved queue) is kept unless -RemoveData is given as well.

  Run from an elevated PowerShell, in the directory holding vantrelo.exe and vantrelo.conf or
  with -SourceDirectory.

.EXAMPLE
  .\install.ps1
.EXAMPLE
  .\install.ps1 -Uninstall -RemoveData
#>
[CmdletBinding()]
param(
  [switch]$Uninstall,
  [switch]$RemoveData,
  [string]$SourceDirectory = $PSScriptRoot,
  [string]$ServiceName = 'Vantrelo'
)

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

$EventSource = 'Morskel Vantrelo'
$EventLogKey = 'HKLM:\SYSTEM\CurrentControlSet\Services\EventLog\Application'
$ProgramDirectory = Join-Path $env:ProgramFiles 'Vantrelo'
$DataDirectory = Join-Path $env:ProgramData 'Vantrelo'
# Where releases before the Windows Installer package put the agent.
$OldProgramDirectory = Join-Path $env:ProgramFiles 'Morskel\Vantrelo'
$OldDataDirectory = Join-Path $env:ProgramData 'Morskel\Vantrelo'
$Program = Join-Path $ProgramDirectory 'vantrelo.exe'
$Configuration = Join-Path $DataDirectory 'vantrelo.conf'
# Information, warning and error entries.
$TypesSupported = 7
$TraceSession = 'Morskel Vantrelo'
# The data directory holds the saved queue (every query the agent could not send yet): ProgramData
# lets ordinary users create files, so they could plant a forged queue or pre-create its .tmp
# file and read it. Inheritance broken (P); SYSTEM and Administrators full control on the
# directory and everything in it; nobody else. The Windows Installer package sets the same.
$DataDirectorySddl = 'D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)'
# Service recovery: restart after 5, 30 and 60 s; the failure count resets after a day
# (86400 s); a stop with an error code counts as a failure too.
$RecoveryResetSeconds = 86400
$RecoveryActions = 'restart/5000/restart/30000/restart/60000'

$principal = New-Object Security.Principal.WindowsPrincipal(
  [Security.Principal.WindowsIdentity]::GetCurrent())
if (-not $principal.IsInRole([Security.Principal.WindowsBuiltInRole]::Administrator)) {
  throw 'Run this script from an elevated PowerShell (Run as administrator).'
}

function Remove-AgentService {
  $service = Get-Service -Name $ServiceName -ErrorAction SilentlyContinue
  if ($null -eq $service) { return }
  if ($service.Status -ne 'Stopped') {
    Stop-Service -Name $ServiceName -Force
    # The agent drains its forwarders and saves its queue before it reports stopped.
    $service.WaitForStatus('Stopped', [TimeSpan]::FromSeconds(60))
  }
  # Remove-Service exists from PowerShell 6 on; sc.exe works everywhere.
  & sc.exe delete $ServiceName | Out-Null
  if ($LASTEXITCODE -ne 0) { throw "sc.exe delete $ServiceName failed with exit code $LASTEXITCODE" }
  Write-Host "Removed service $ServiceName"
}

function Stop-TraceSession {
  # The trace session outlives the service; a session that is not running is no error here.
  # Windows PowerShell turns a native program's error output into a terminating error under
  # 'Stop', so this one call runs under 'Continue'.
  $ErrorActionPreference = 'Continue'
  & logman.exe stop $TraceSession -ets 2>&1 | Out-Null
  if ($LASTEXITCODE -eq 0) { Write-Host "Stopped trace session '$TraceSession'" }
}

function Invoke-Native([string]$Program, [string]$Arguments) {
  # Windows PowerShell 5.1 re-quotes arguments of native programs on its own rules (an argument
  # holding quotes and spaces comes out mangled), so the command line is passed as one string
  # that Win32 takes exactly as written.
  $info = New-Object Diagnostics.ProcessStartInfo($Program, $Arguments)
  $info.UseShellExecute = $false
  $info.RedirectStandardOutput = $true
  $process = [Diagnostics.Process]::Start($info)
  $output = $process.StandardOutput.ReadToEnd()
  $process.WaitForExit()
  if ($process.ExitCode -ne 0) { throw "$Program $Arguments failed ($($process.ExitCode)): $output" }
}

function Protect-DataDirectory {
  $acl = Get-Acl -Path $DataDirectory
  $acl.SetSecurityDescriptorSddlForm($DataDirectorySddl, 'Access')
  Set-Acl -Path $DataDirectory -AclObject $acl
  Write-Host "Limited $DataDirectory to SYSTEM and Administrators"
}

function Remove-EventSource {
  $key = Join-Path $EventLogKey $EventSource
  if (Test-Path $key) {
    Remove-Item -Path $key -Recurse -Force
    Write-Host "Removed event log source '$EventSource'"
  }
}

if ($Uninstall) {
  Remove-AgentService
  Stop-TraceSession
  Remove-EventSource
  if (Test-Path $ProgramDirectory) {
    Remove-Item -Path $ProgramDirectory -Recurse -Force
    Write-Host "Removed $ProgramDirectory"
  }
  if ($RemoveData -and (Test-Path $DataDirectory)) {
    Remove-Item -Path $DataDirectory -Recurse -Force
    Write-Host "Removed $DataDirectory"
  } elseif (Test-Path $DataDirectory) {
    Write-Host "Kept $DataDirectory (configuration and saved queue); -RemoveData deletes it"
  }
  return
}

$sourceProgram = Join-Path $SourceDirectory 'vantrelo.exe'
$sourceConfiguration = Join-Path $SourceDirectory 'vantrelo.conf'
foreach ($file in @($sourceProgram, $sourceConfiguration)) {
  if (-not (Test-Path $file -PathType Leaf)) { throw "Missing $file" }
}

# A reinstall replaces the program; the service must not hold it open.
$existing = Get-Service -Name $ServiceName -ErrorAction SilentlyContinue
if ($null -ne $existing -and $existing.Status -ne 'Stopped') {
  Stop-Service -Name $ServiceName -Force
  $existing.WaitForStatus('Stopped', [TimeSpan]::FromSeconds(60))
}

New-Item -ItemType Directory -Path $ProgramDirectory -Force | Out-Null
Copy-Item -Path $sourceProgram -Destination $Program -Force
Write-Host "Installed $Program"

New-Item -ItemType Directory -Path $DataDirectory -Force | Out-Null
# An installation of an earlier release keeps its configuration and saved queue: they move to
# the new data directory (unless one is there already) and the old program goes.
if ((Test-Path $OldDataDirectory) -and -not (Test-Path $Configuration)) {
  Get-ChildItem -Path $OldDataDirectory | Move-Item -Destination $DataDirectory
  Remove-Item -Path $OldDataDirectory -Recurse -Force
  Write-Host "Moved the configuration and saved queue from $OldDataDirectory"
}
if (Test-Path $OldProgramDirectory) { Remove-Item -Path $OldProgramDirectory -Recurse -Force }
if (Test-Path $Configuration) {
  Write-Host "Kept the existing $Configuration"
} else {
  Copy-Item -Path $sourceConfiguration -Destination $Configuration
  Write-Host "Installed the default $Configuration"
}
# Last, so that the rules reach what was moved or copied in as well.
Protect-DataDirectory

# The event log formats each entry with the message table compiled into vantrelo.exe.
$sourceKey = Join-Path $EventLogKey $EventSource
New-Item -Path $sourceKey -Force | Out-Null
New-ItemProperty -Path $sourceKey -Name EventMessageFile -PropertyType ExpandString `
  -Value $Program -Force | Out-Null
New-ItemProperty -Path $sourceKey -Name TypesSupported -PropertyType DWord `
  -Value $TypesSupported -Force | Out-Null
Write-Host "Registered event log source '$EventSource'"

$binaryPath = "`"$Program`" run-service `"$Configuration`""
if ($null -eq $existing) {
  New-Service -Name $ServiceName -BinaryPathName $binaryPath -DisplayName 'Morskel Vantrelo' `
    -Description 'DNS telemetry agent: ships DNS Server query and response events to collectors.' `
    -StartupType Automatic | Out-Null
  Write-Host "Created service $ServiceName (automatic start, LocalSystem)"
} else {
  # Keep the service and point it at the installed files. The registry value is the command
  # line itself, so it is written as it is, with no native-argument quoting in between.
  $serviceKey = "HKLM:\SYSTEM\CurrentControlSet\Services\$ServiceName"
  Set-ItemProperty -Path $serviceKey -Name ImagePath -Value $binaryPath -Type ExpandString
  Invoke-Native 'sc.exe' "config $ServiceName start= auto obj= LocalSystem"
  Write-Host "Updated service $ServiceName"
}
Invoke-Native 'sc.exe' "failure $ServiceName reset= $RecoveryResetSeconds actions= $RecoveryActions"
Invoke-Native 'sc.exe' "failureflag $ServiceName 1"
Write-Host "Set the recovery of ${ServiceName}: restart after 5 s, 30 s, 60 s; reset after a day"

Write-Host ''
Write-Host "Edit $Configuration, then start the agent with: Start-Service $ServiceName"
