<#
.SYNOPSIS
Installs OrvikService from its MSI on Windows, checks what Wine cannot show, repairs and uninstalls it.
.DESCRIPTION
Needs an administrator's PowerShell 5.1 or later on Windows 10 or 11, x64, without an OrvikService.
scripts/package makes the MSI, on Debian.
.EXAMPLE
scripts\test-msi.ps1 OrvikService-4.0.4-x64.msi
#>
param(
    [Parameter(Mandatory = $true)]
    [string] $Msi
)
Set-StrictMode -Version 3.0
$ErrorActionPreference = 'Stop'
$service = 'OrvikService'
$folder = Join-Path $env:ProgramFiles 'Orvik Service'
$program = Join-Path $folder 'OrvikService.exe'
$orvikctl = Join-Path $folder 'orvikctl.exe'
$serviceKey = "HKLM:\SYSTEM\CurrentControlSet\Services\$service"
$environmentKey = 'HKLM:\SYSTEM\CurrentControlSet\Control\Session Manager\Environment'

function Step([string] $Text) {
    Write-Host "== $Text"
}

function Assert-Equal([string] $What, $Actual, $Expected) {
    if ("$Actual" -ne "$Expected") { throw "${What}: `"$Actual`", not `"$Expected`"" }
}

function Invoke-Installer([string] $Arguments) {
    $log = Join-Path $env:TEMP 'OrvikService-test-msi.log'
    $process = Start-Process msiexec.exe "$Arguments /qn /norestart /l*v `"$log`"" -Wait -PassThru
    if ($process.ExitCode -ne 0) {
        Get-Content $log | Select-String -Context 15, 0 'Return value 3' | Out-Host
        throw "msiexec $Arguments ended with the exit code $($process.ExitCode). Its log is $log"
    }
}

# What orvikctl says of the service. Its messages are left out.
function Get-Status {
    $ErrorActionPreference = 'Continue'
    return & $orvikctl status --json 2>$null | ConvertFrom-Json
}

# Waits until the service runs, as another process than $Before: sc.exe and the service control manager do
# not wait for that.
function Wait-Running([int] $Before = 0) {
    $end = [DateTime]::UtcNow.AddSeconds(60)
    while ($true) {
        $status = Get-Status
        if ($status.state -eq 'running' -and $status.reachable -and $status.process -ne $Before) { return }
        if ([DateTime]::UtcNow -gt $end) {
            throw "not within 60 seconds: the service works. $($status | ConvertTo-Json -Compress)"
        }
        Start-Sleep -Milliseconds 100
    }
}

# The machine's PATH, as it is stored.
function Get-MachinePath {
    $key = Get-Item $environmentKey
    return $key.GetValue('Path', '', 'DoNotExpandEnvironmentNames') -split ';'
}

if (Get-Service $service -ErrorAction SilentlyContinue) {
    throw "The service $service is installed on this machine. Remove it first."
}
$path = (Resolve-Path $Msi).Path
$installed = $false
try {
    Step 'install'
    $installed = $true
    Invoke-Installer "/i `"$path`""
    Wait-Running
    Assert-Equal 'path of the service' (Get-ItemProperty $serviceKey).ImagePath "`"$program`""
    Assert-Equal 'account' (Get-ItemProperty $serviceKey).ObjectName 'LocalSystem'
    Assert-Equal 'start type' (Get-Status).start_type 'automatic'
    if ((Get-MachinePath | ForEach-Object { $_.TrimEnd('\') }) -notcontains $folder) {
        throw "the machine's PATH does not have $folder"
    }

    Step 'recovery actions'
    $recovery = (Get-Status).recovery | ForEach-Object { "$($_.action) $($_.delay_ms)" }
    Assert-Equal 'recovery actions' ($recovery -join ', ') 'restart 1000, restart 5000, restart 30000'
    Assert-Equal 'also without a crash' (Get-ItemProperty $serviceKey).FailureActionsOnNonCrashFailures 1
    $before = (Get-Status).process
    Stop-Process -Id $before -Force
    Wait-Running $before

    Step 'repair'
    Remove-Item $orvikctl
    Invoke-Installer "/fa `"$path`""
    Wait-Running

    Step 'uninstall'
    Invoke-Installer "/x `"$path`""
    $installed = $false
    if (Get-Service $service -ErrorAction SilentlyContinue) { throw 'the service is still there' }
    if (Test-Path $folder) { throw "$folder is still there: $(Get-ChildItem -Recurse $folder)" }
    if ((Get-MachinePath | ForEach-Object { $_.TrimEnd('\') }) -contains $folder) {
        throw "the machine's PATH still has $folder"
    }
    Write-Host 'all steps passed'
} finally {
    if ($installed) { Start-Process msiexec.exe "/x `"$path`" /qn /norestart" -Wait }
}
