<#
.SYNOPSIS
Builds OrvikService on Windows and tests it, or tests programs that were built elsewhere.
.DESCRIPTION
Needs an administrator's PowerShell 5.1 or later on Windows 10 or 11, x64, without an OrvikService. The
tests of the virtual camera's driver are left out unless -Driver is given: Windows loads the driver only
with test signing. docs/building.md says what -Preset needs.
.EXAMPLE
scripts\test.ps1 -Preset msvc
.EXAMPLE
scripts\test.ps1 -Programs C:\Orvik
#>
[CmdletBinding(DefaultParameterSetName = 'Build')]
param(
    # The preset to build and test: msvc, clang-cl, ucrt64 or clang64.
    [Parameter(ParameterSetName = 'Build', Mandatory = $true)]
    [ValidateSet('msvc', 'clang-cl', 'ucrt64', 'clang64')]
    [string] $Preset,

    # Instead of building: the folder with OrvikService.exe, orvikctl.exe and their PDB files.
    [Parameter(ParameterSetName = 'Programs', Mandatory = $true)]
    [string] $Programs,

    # Run the tests that need the virtual camera's driver as well.
    [Parameter(ParameterSetName = 'Build')]
    [switch] $Driver,

    # Connections, one after the other, to the service.
    [ValidateRange(1, 1000000)]
    [int] $Connections = 1000
)
Set-StrictMode -Version 3.0
$ErrorActionPreference = 'Stop'
$service = 'OrvikService'

function Step([string] $Text) {
    Write-Host "== $Text"
}

# Runs a program; its output. Fails unless its exit code is 0.
function Invoke-Program([string] $Program, [string[]] $Arguments) {
    # Windows PowerShell makes each line on standard error a terminating error under 'Stop'.
    $ErrorActionPreference = 'Continue'
    $output = & $Program @Arguments 2>&1 | ForEach-Object { "$_" } | Out-String
    if ($LASTEXITCODE -ne 0) {
        throw "$Program $($Arguments -join ' ') ended with the exit code ${LASTEXITCODE}: $output"
    }
    return $output
}

# Waits for a condition that no event announces; fails with the text after 60 seconds.
function Wait-Until([string] $Text, [scriptblock] $Condition) {
    $end = [DateTime]::UtcNow.AddSeconds(60)
    while (-not (& $Condition)) {
        if ([DateTime]::UtcNow -gt $end) { throw "not within 60 seconds: $Text" }
        Start-Sleep -Milliseconds 100
    }
}

# What orvikctl says of the service, also of one that does not run. Its messages are left out.
function Get-Status {
    $ErrorActionPreference = 'Continue'
    return & $orvikctl status --json 2>$null | ConvertFrom-Json
}

$identity = [Security.Principal.WindowsIdentity]::GetCurrent()
$administrators = [Security.Principal.WindowsBuiltInRole]::Administrator
if (-not ([Security.Principal.WindowsPrincipal]$identity).IsInRole($administrators)) {
    throw 'An administrator must run this script: it installs a service and makes a user.'
}
if (Get-Service $service -ErrorAction SilentlyContinue) {
    throw "The service $service is installed on this machine. Remove it first: sc.exe delete $service"
}

$root = Split-Path -Parent $PSScriptRoot
if ($Preset) {
    Push-Location $root
    try {
        Step "build with the preset $Preset"
        if (-not (Test-Path 'build/breakpad/package')) {
            Invoke-Program cmake @('-DFOLDER=build/breakpad', '-P', 'cmake/breakpad/fetch.cmake')
        }
        # Not through Invoke-Program, so that long output appears as it comes.
        & cmake --preset $Preset
        if ($LASTEXITCODE -ne 0) { throw 'the configuration failed' }
        & cmake --build --preset $Preset
        if ($LASTEXITCODE -ne 0) { throw 'the build failed' }
        Step 'tests'
        $filter = if ($Driver) { @() } else { @('-LE', 'driver') }
        & ctest --preset $Preset @filter
        if ($LASTEXITCODE -ne 0) { throw 'tests failed' }
    } finally {
        Pop-Location
    }
    $Programs = Join-Path $root "build/$Preset/bin"
}

# Copied to a folder that standard users can read, as an installation is.
$folder = Join-Path $env:ProgramFiles 'OrvikServiceTest'
$program = Join-Path $folder 'OrvikService.exe'
$orvikctl = Join-Path $folder 'orvikctl.exe'
$user = 'OrvikTest'
try {
    Step 'install the service'
    New-Item -ItemType Directory -Force $folder | Out-Null
    Copy-Item -Recurse -Force (Join-Path $Programs '*') $folder
    Invoke-Program $orvikctl @('version')
    New-Service -Name $service -BinaryPathName "`"$program`"" -StartupType Manual | Out-Null
    Invoke-Program sc.exe @('failure', $service, 'reset=', '86400', 'actions=',
                            'restart/1000/restart/5000/restart/30000') | Out-Null
    $recovery = @((Get-Status).recovery)
    if ($recovery.Count -ne 3 -or $recovery[0].action -ne 'restart' -or $recovery[0].delay_ms -ne 1000) {
        throw "orvikctl status shows other failure actions: $($recovery | ConvertTo-Json -Compress)"
    }

    Step 'start it'
    Start-Service $service
    $status = Get-Status
    if ($status.state -ne 'running' -or -not $status.reachable) {
        throw "the service does not work: $($status | ConvertTo-Json -Compress)"
    }

    Step "$Connections connections"
    foreach ($number in 1..$Connections) { Invoke-Program $orvikctl @('ping') | Out-Null }
    if ((Get-Status).process -ne $status.process) { throw 'the service has restarted meanwhile' }

    Step 'a standard user'
    # All classes of characters, for every password policy.
    $password = ConvertTo-SecureString -AsPlainText -Force "aA1!$([Guid]::NewGuid())"
    New-LocalUser -Name $user -Password $password | Out-Null
    $users = Get-LocalGroup -SID 'S-1-5-32-545'
    Add-LocalGroupMember -Group $users -Member $user
    $credential = New-Object Management.Automation.PSCredential(".\$user", $password)
    function Get-ExitCodeAsUser([string] $Program, [string[]] $Arguments) {
        $process = Start-Process $Program $Arguments -Credential $credential -WorkingDirectory $folder `
            -WindowStyle Hidden -PassThru -Wait
        return $process.ExitCode
    }
    $code = Get-ExitCodeAsUser $orvikctl @('ping')
    if ($code -ne 0) { throw "orvikctl ping of a standard user ended with the exit code $code" }
    $code = Get-ExitCodeAsUser (Join-Path $env:SystemRoot 'System32\sc.exe') @('stop', $service)
    if ($code -ne 5) { throw "sc.exe stop of a standard user ended with $code, not with access denied (5)" }
    Invoke-Program $orvikctl @('ping') | Out-Null

    Step 'name an unknown camera: the run ends, with a dump, and the service restarts'
    $before = Get-Status
    $pipe = New-Object IO.Pipes.NamedPipeClientStream('.', 'orvikcamera', [IO.Pipes.PipeDirection]::InOut)
    try {
        $pipe.Connect(5000)
        # kTransferIn, request 1, camera 4242, and the 16 bytes of a command (docs/protocol.md).
        $request = New-Object byte[] 32
        [BitConverter]::GetBytes([uint32]3).CopyTo($request, 0)
        [BitConverter]::GetBytes([uint32]1).CopyTo($request, 4)
        [BitConverter]::GetBytes([uint32]4242).CopyTo($request, 8)
        [BitConverter]::GetBytes([uint32]16).CopyTo($request, 12)
        $pipe.Write($request, 0, $request.Length)
        $process = Get-Process -Id $before.process -ErrorAction SilentlyContinue
        if ($process -and -not $process.WaitForExit(60000)) { throw 'the process did not end' }
    } finally {
        $pipe.Dispose()
    }
    Wait-Until 'the service runs again, as another process' {
        $now = Get-Status
        $now.state -eq 'running' -and $now.process -ne $before.process
    }
    Invoke-Program $orvikctl @('ping') | Out-Null
    $after = Get-Status
    if (-not $after.newest_dump -or
        ($before.newest_dump -and $after.newest_dump.name -eq $before.newest_dump.name)) {
        throw 'there is no new dump'
    }
    if ($after.last_crash.text -ne 'Bad camera in request.') {
        throw "orvikctl status shows another reason: $($after | ConvertTo-Json -Compress)"
    }
    $dump = Join-Path $after.dump_folder $after.newest_dump.name
    Write-Host "dump: $dump, $((Get-Item $dump).Length) bytes"

    Step 'symbols of the dump'
    $debugger = Join-Path ${env:ProgramFiles(x86)} 'Windows Kits\10\Debuggers\x64\cdb.exe'
    if (-not (Test-Path $debugger)) {
        Write-Warning "not checked: there is no $debugger (Debugging Tools for Windows)"
    } elseif (-not (Test-Path (Join-Path $folder 'OrvikService.pdb'))) {
        Write-Warning 'not checked: OrvikService.pdb is not beside the program (the debugger needs it)'
    } else {
        $stack = Invoke-Program $debugger @('-z', $dump, '-y', $folder, '-c', '.ecxr; k; q')
        if ($stack -notmatch 'OrvikService!.*RunServiceOrEndProcess') {
            throw "the debugger does not show RunServiceOrEndProcess: $stack"
        }
    }

    Step 'stop and delete'
    Stop-Service $service
    Invoke-Program sc.exe @('delete', $service) | Out-Null
    Wait-Until 'the service is deleted' { -not (Get-Service $service -ErrorAction SilentlyContinue) }
    Write-Host 'all steps passed'
} finally {
    if (Get-Service $service -ErrorAction SilentlyContinue) {
        Stop-Service $service -Force -ErrorAction SilentlyContinue
        & sc.exe delete $service | Out-Null
    }
    if (Get-LocalUser $user -ErrorAction SilentlyContinue) { Remove-LocalUser $user }
    Remove-Item -Recurse -Force $folder -ErrorAction SilentlyContinue
}
