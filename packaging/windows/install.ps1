<#
.SYNOPSIS
  Installs or removes the vantrelo DNS telemetry agent as a Windows service.

.DESCRIPTION
  Installing copies vantrelo.exe to "$env:ProgramFiles\Morskel\Vantrelo" and, unless one is
  there already, the default configuration to "$env:ProgramData\Morskel\Vantrelo\vantrelo.conf";
  registers the event log source "Morskel Vantrelo" (its messages come from vantrelo.exe) and
  creates the service "Vantrelo" (automatic start, LocalSystem), which runs
  "vantrelo.exe run-service <configuration>". The service is not started: edit the
  configuration first, then Start-Service Vantrelo.

  -Uninstall stops and deletes the service, removes the event source and the program
  directory. The configuration directory (configuration and saved queue) is kept unless
  -RemoveData is given as well.

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
$ProgramDirectory = Join-Path $env:ProgramFiles 'Morskel\Vantrelo'
$DataDirectory = Join-Path $env:ProgramData 'Morskel\Vantrelo'
$Program = Join-Path $ProgramDirectory 'vantrelo.exe'
$Configuration = Join-Path $DataDirectory 'vantrelo.conf'
# Information, warning and error entries.
$TypesSupported = 7

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

function Remove-EventSource {
  $key = Join-Path $EventLogKey $EventSource
  if (Test-Path $key) {
    Remove-Item -Path $key -Recurse -Force
    Write-Host "Removed event log source '$EventSource'"
  }
}

if ($Uninstall) {
  Remove-AgentService
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
if (Test-Path $Configuration) {
  Write-Host "Kept the existing $Configuration"
} else {
  Copy-Item -Path $sourceConfiguration -Destination $Configuration
  Write-Host "Installed the default $Configuration"
}

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
  # Keep the service (and its recovery settings) and point it at the installed files.
  & sc.exe config $ServiceName binPath= $binaryPath start= auto obj= LocalSystem | Out-Null
  if ($LASTEXITCODE -ne 0) { throw "sc.exe config $ServiceName failed with exit code $LASTEXITCODE" }
  Write-Host "Updated service $ServiceName"
}

Write-Host ''
Write-Host "Edit $Configuration, then start the agent with: Start-Service $ServiceName"
