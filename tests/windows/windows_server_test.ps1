<#
.SYNOPSIS
  End-to-end test of vantrelo on a real Windows Server (2016 to 2025).

.DESCRIPTION
  What wine cannot show, on the machine itself: the DNS Server's events reach a collector.
  Installs the DNS Server role if missing, installs the agent's MSI, checks what the installer
  set (service, recovery actions, event-log source, data directory access list), configures an
  etw listener, a socket listener and a forwarder to a TCP collector inside this script, asks
  the DNS Server several names and types (one NXDOMAIN among them) on 127.0.0.1 and checks that
  every question shows up as a client-query and a client-response JSON record with the right
  qname, qtype and rcode. Then checks the exclusive port, stops the service (the queue saved,
  "Stopped" in the event log), uninstalls, and checks that the service, the event-log source
  and the trace session are gone. With -ScriptPackage it does the same install checks with
  install.ps1 from the ZIP package, twice (a reinstall must keep a correct ImagePath).

  Run from an elevated PowerShell on a test machine (it adds a DNS zone and installs a
  service); exits 1 on the first failed check.

.EXAMPLE
  .\windows_server_test.ps1 -Msi .\vantrelo-2.4.4-x64.msi
.EXAMPLE
  .\windows_server_test.ps1 -Msi .\vantrelo-2.4.4-x64.msi -ScriptPackage .\vantrelo-2.4.4-windows-x64
#>
[CmdletBinding()]
param(
  [Parameter(Mandatory = $true)][string]$Msi,
  [string]$ScriptPackage = '',
  [int]$CollectorPort = 15140,
  [int]$ListenerPort = 16000,
  [int]$TimeoutSeconds = 90
)

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

$ServiceName = 'Vantrelo'
$EventSource = 'Morskel Vantrelo'
$TraceSession = 'Morskel Vantrelo'
$Zone = 'e2e.vantrelo.test'
$ProgramDirectory = Join-Path $env:ProgramFiles 'Vantrelo'
$DataDirectory = Join-Path $env:ProgramData 'Vantrelo'
$Configuration = Join-Path $DataDirectory 'vantrelo.conf'
$SourceKey = "HKLM:\SYSTEM\CurrentControlSet\Services\EventLog\Application\$EventSource"
$ServiceKey = "HKLM:\SYSTEM\CurrentControlSet\Services\$ServiceName"
$script:Failures = 0

function Check([bool]$Condition, [string]$What) {
  if ($Condition) { Write-Host "ok   $What" } else { Write-Host "FAIL $What"; $script:Failures++ }
}

function Stop-OnFailures {
  if ($script:Failures -gt 0) { Write-Host "$($script:Failures) check(s) failed"; exit 1 }
}

function Invoke-Msiexec([string]$Arguments) {
  $process = Start-Process -FilePath msiexec.exe -ArgumentList $Arguments -Wait -PassThru
  return $process.ExitCode
}

function Test-TraceSession {
  $ErrorActionPreference = 'Continue'  # logman's error output must not end the script
  & logman.exe query $TraceSession -ets 2>&1 | Out-Null
  return $LASTEXITCODE -eq 0
}

# What every installer must leave: the service, its recovery, the event-log source and the
# locked data directory.
function Test-Installation([string]$How) {
  $service = Get-CimInstance Win32_Service -Filter "Name='$ServiceName'"
  Check ($null -ne $service) "${How}: service $ServiceName exists"
  if ($null -eq $service) { return }
  Check ($service.StartMode -eq 'Auto') "${How}: automatic start"
  Check ($service.StartName -eq 'LocalSystem') "${How}: runs as LocalSystem"
  $expected = "`"$ProgramDirectory\vantrelo.exe`" run-service `"$Configuration`""
  $image = (Get-ItemProperty -Path $ServiceKey).ImagePath
  Check ($image -eq $expected) "${How}: command line $image (the program path quoted)"
  Check (Test-Path $Configuration) "${How}: configuration in place"

  $failure = (& sc.exe qfailure $ServiceName) -join "`n"
  Check ($failure -match 'RESET_PERIOD \(in seconds\)\s*:\s*86400') "${How}: recovery reset after a day"
  Check ($failure -match 'RESTART -- Delay = 5000' -and $failure -match 'RESTART -- Delay = 30000' -and
         $failure -match 'RESTART -- Delay = 60000') "${How}: restart after 5 s, 30 s, 60 s"
  $flag = (& sc.exe qfailureflag $ServiceName) -join "`n"
  Check ($flag -match 'TRUE') "${How}: recovery also on a failed stop"

  $messageFile = (Get-ItemProperty -Path $SourceKey -ErrorAction SilentlyContinue).EventMessageFile
  Check ($messageFile -eq "$ProgramDirectory\vantrelo.exe") "${How}: event-log source '$messageFile'"

  $acl = Get-Acl -Path $DataDirectory
  $who = @($acl.Access | ForEach-Object { $_.IdentityReference.Translate(
      [Security.Principal.SecurityIdentifier]).Value } | Sort-Object -Unique)
  Check $acl.AreAccessRulesProtected "${How}: data directory inherits nothing"
  Check (($who -join ',') -eq 'S-1-5-18,S-1-5-32-544') "${How}: only SYSTEM and Administrators ($($who -join ','))"
  Check (@($acl.Access | Where-Object { $_.FileSystemRights -ne 'FullControl' }).Count -eq 0) `
    "${How}: full control each"
}

function Test-Removal([string]$How) {
  Check ($null -eq (Get-Service -Name $ServiceName -ErrorAction SilentlyContinue)) "${How}: service removed"
  Check (-not (Test-Path $SourceKey)) "${How}: event-log source removed"
  Check (-not (Test-TraceSession)) "${How}: trace session stopped"
  Check (-not (Test-Path "$ProgramDirectory\vantrelo.exe")) "${How}: program removed"
}

# --- the DNS Server and a zone of our own, so no answer depends on the internet ---
if (-not (Get-WindowsFeature -Name DNS).Installed) {
  Install-WindowsFeature -Name DNS -IncludeManagementTools | Out-Null
}
Start-Service DNS
if (-not (Get-DnsServerZone -Name $Zone -ErrorAction SilentlyContinue)) {
  Add-DnsServerPrimaryZone -Name $Zone -ZoneFile "$Zone.dns"
}
Add-DnsServerResourceRecordA -ZoneName $Zone -Name www -IPv4Address 192.0.2.80 -ErrorAction SilentlyContinue
Add-DnsServerResourceRecordAAAA -ZoneName $Zone -Name www -IPv6Address 2001:db8::80 -ErrorAction SilentlyContinue
Add-DnsServerResourceRecordMX -ZoneName $Zone -Name '.' -MailExchange "mail.$Zone" -Preference 10 -ErrorAction SilentlyContinue
Add-DnsServerResourceRecord -ZoneName $Zone -Name txt -Txt -DescriptiveText 'vantrelo e2e' -ErrorAction SilentlyContinue

# --- the MSI ---
$log = Join-Path $env:TEMP 'vantrelo-msi-install.log'
$code = Invoke-Msiexec "/i `"$((Resolve-Path $Msi).Path)`" /qn /l*v `"$log`""
Check ($code -eq 0) "msiexec /i exit code $code (log $log)"
Test-Installation 'MSI'
Stop-OnFailures

# --- a collector inside this script, and the agent pointed at it ---
$collector = [Net.Sockets.TcpListener]::new([Net.IPAddress]::Loopback, $CollectorPort)
$collector.Start()
Copy-Item $Configuration "$Configuration.orig" -Force
@"
listener etw client-query=on client-response=on
listener ipv4 127.0.0.1 $ListenerPort
forwarder ipv4 127.0.0.1 $CollectorPort batch-size=1 recovery=best-effort
message-format json
metrics-interval 10
"@ | Set-Content -Path $Configuration -Encoding ascii
Start-Service $ServiceName
(Get-Service $ServiceName).WaitForStatus('Running', [TimeSpan]::FromSeconds(30))

$deadline = (Get-Date).AddSeconds($TimeoutSeconds)
while (-not $collector.Pending() -and (Get-Date) -lt $deadline) { Start-Sleep -Milliseconds 200 }
Check $collector.Pending() 'the forwarder connected to the collector'
Stop-OnFailures
$connection = $collector.AcceptTcpClient()
$stream = $connection.GetStream()
$stream.ReadTimeout = 1000
Check (Test-TraceSession) "trace session '$TraceSession' running"

# The listener's port is the agent's alone: a second socket that asks to share it is refused.
$intruder = [Net.Sockets.Socket]::new('InterNetwork', 'Stream', 'Tcp')
$intruder.SetSocketOption('Socket', 'ReuseAddress', $true)
$shared = $true
try { $intruder.Bind([Net.IPEndPoint]::new([Net.IPAddress]::Loopback, $ListenerPort)) } catch { $shared = $false }
$intruder.Close()
Check (-not $shared) "a second bind of port $ListenerPort fails"

# --- questions to the DNS Server, each expected as a query and a response record ---
$questions = @(
  @{ Name = "www.$Zone"; Type = 'A'; Rcode = 'NOERROR' },
  @{ Name = "www.$Zone"; Type = 'AAAA'; Rcode = 'NOERROR' },
  @{ Name = "$Zone"; Type = 'MX'; Rcode = 'NOERROR' },
  @{ Name = "txt.$Zone"; Type = 'TXT'; Rcode = 'NOERROR' },
  @{ Name = "missing.$Zone"; Type = 'A'; Rcode = 'NXDOMAIN' }
)
# The session needs a moment after the service reports running before events flow.
Start-Sleep -Seconds 5
foreach ($q in $questions) {
  Resolve-DnsName -Name $q.Name -Type $q.Type -Server 127.0.0.1 -DnsOnly -NoHostsFile `
    -QuickTimeout -ErrorAction SilentlyContinue | Out-Null
}

$seen = @{}
$buffer = New-Object byte[] 65536
$text = ''
$deadline = (Get-Date).AddSeconds($TimeoutSeconds)
while ((Get-Date) -lt $deadline -and $seen.Count -lt 2 * $questions.Count) {
  try { $count = $stream.Read($buffer, 0, $buffer.Length) } catch { continue }
  if ($count -eq 0) { break }
  $text += [Text.Encoding]::UTF8.GetString($buffer, 0, $count)
  $lines = @($text -split "`n")
  $text = $lines[-1]
  if ($lines.Count -lt 2) { continue }
  foreach ($line in $lines[0..($lines.Count - 2)]) {
    if (-not $line.Trim()) { continue }
    $record = $line | ConvertFrom-Json
    if ($record.type -notin 'client-query', 'client-response') { continue }
    $qname = $record.data.qname.TrimEnd('.')
    foreach ($q in $questions) {
      if ($qname -ne $q.Name -or $record.data.qtype -ne $q.Type) { continue }
      if ($record.type -eq 'client-query') { $seen["$($q.Name)/$($q.Type)/query"] = $true }
      if ($record.type -eq 'client-response' -and $record.data.rcode -eq $q.Rcode) {
        $seen["$($q.Name)/$($q.Type)/response"] = $true
      }
    }
  }
}
foreach ($q in $questions) {
  foreach ($kind in 'query', 'response') {
    Check $seen.ContainsKey("$($q.Name)/$($q.Type)/$kind") `
      "client-$kind record for $($q.Name) $($q.Type)$(if ($kind -eq 'response') { " $($q.Rcode)" })"
  }
}

# --- stop: the queue saved, the log in the event log with its message texts ---
Stop-Service $ServiceName
$connection.Close()
$collector.Stop()
$entries = @(Get-WinEvent -FilterHashtable @{ LogName = 'Application'; ProviderName = $EventSource } -MaxEvents 50)
Check (@($entries | Where-Object { $_.Message -like 'Started*' }).Count -gt 0) "'Started' in the event log"
Check (@($entries | Where-Object { $_.Message -like 'Stopped*' }).Count -gt 0) "'Stopped' in the event log"
Move-Item "$Configuration.orig" $Configuration -Force

# --- uninstall ---
$code = Invoke-Msiexec "/x `"$((Resolve-Path $Msi).Path)`" /qn"
Check ($code -eq 0) "msiexec /x exit code $code"
Test-Removal 'MSI'

# --- the script installer, installed twice: a reinstall keeps a correct command line ---
if ($ScriptPackage) {
  $script = Join-Path $ScriptPackage 'install.ps1'
  & $script -SourceDirectory $ScriptPackage | Out-Null
  & $script -SourceDirectory $ScriptPackage | Out-Null
  Test-Installation 'install.ps1'
  Start-Service $ServiceName
  Start-Sleep -Seconds 3
  & $script -Uninstall | Out-Null
  Test-Removal 'install.ps1'
}

Stop-OnFailures
Write-Host 'all checks passed'
