# The picture of the cluster as objects. Every function runs shmnmctl and reads its JSON; nothing is changed.
# For Windows PowerShell 5.1 and PowerShell 7.

Set-StrictMode -Version 2.0

# shmnmctl of the installation that this module belongs to; otherwise the one in PATH.
function Find-Shmnmctl {
    $prefix = Split-Path (Split-Path (Split-Path $PSScriptRoot))
    foreach ($name in 'shmnmctl.exe', 'shmnmctl') {
        $program = Join-Path (Join-Path $prefix 'bin') $name
        if (Test-Path -LiteralPath $program -PathType Leaf) { return $program }
    }
    return (Get-Command -Name shmnmctl -CommandType Application -ErrorAction Stop | Select-Object -First 1).Path
}

# An argument as programs take their command line apart: quoted, with a backslash before each quote.
function ConvertTo-QuotedArgument {
    param([string] $Argument)
    $escaped = $Argument -replace '(\\*)"', '$1$1\"' -replace '(\\+)$', '$1$1'
    return '"' + $escaped + '"'
}

function Start-Shmnmctl {
    param([string[]] $Arguments)
    $start = New-Object System.Diagnostics.ProcessStartInfo
    $start.FileName = Find-Shmnmctl
    $start.Arguments = (@($Arguments) + @('--format', 'json') | ForEach-Object { ConvertTo-QuotedArgument $_ }) -join ' '
    $start.UseShellExecute = $false
    $start.CreateNoWindow = $true
    $start.RedirectStandardOutput = $true
    $start.RedirectStandardError = $true
    $start.StandardOutputEncoding = New-Object System.Text.UTF8Encoding $false
    $start.StandardErrorEncoding = New-Object System.Text.UTF8Encoding $false
    return [System.Diagnostics.Process]::Start($start)
}

# Passes warnings on and returns the error, or nothing.
function Read-Complaint {
    param([string] $Text)
    $failure = $null
    foreach ($line in $Text -split "`n") {
        if (-not $line.Trim()) { continue }
        $document = ConvertFrom-Json $line
        if ($document.kind -eq 'warning') { Write-Warning $document.message } else { $failure = $document }
    }
    return $failure
}

function New-ShmnmError {
    param($Failure, [int] $Status)
    $message = if ($Failure) { $Failure.message } else { "shmnmctl ended with $Status" }
    $exception = New-Object System.InvalidOperationException $message
    $category = [System.Management.Automation.ErrorCategory]::NotSpecified
    if ($Status -eq 2) { $category = [System.Management.Automation.ErrorCategory]::InvalidArgument }
    if ($Status -eq 3) { $category = [System.Management.Automation.ErrorCategory]::ObjectNotFound }
    if ($Status -eq 4) { $category = [System.Management.Automation.ErrorCategory]::OperationTimeout }
    return New-Object System.Management.Automation.ErrorRecord $exception, "Shmnm.Status$Status", $category, $null
}

# Runs shmnmctl to its end.
function Invoke-Shmnmctl {
    param([string[]] $Arguments)
    $process = Start-Shmnmctl $Arguments
    try {
        # Both streams are read at once: a full one would keep the program from writing the other.
        $complaint = $process.StandardError.ReadToEndAsync()
        $answer = $process.StandardOutput.ReadToEndAsync()
        # In slices, so that Ctrl-C is noticed.
        while (-not $process.WaitForExit(100)) { }
        return [pscustomobject] @{ Status = $process.ExitCode; Output = $answer.Result; Failure = Read-Complaint $complaint.Result }
    }
    finally {
        if (-not $process.HasExited) { $process.Kill() }
        $process.Dispose()
    }
}

function Get-SourceArgument {
    param([string] $From, [string] $LockTimeout)
    if ($From) { '--from', $From }
    if ($LockTimeout) { '--lock-timeout', $LockTimeout }
}

<#
.SYNOPSIS
Gets the picture of the cluster as one object.
.DESCRIPTION
The members are those of the document "status" in docs/shmnmctl.schema.json: cluster, servers, hb, np, fst and others.
.PARAMETER Prefix
Only what is at or below these keys, such as servers/alpha.
.PARAMETER Only
Only the rows whose words meet this condition, such as nodestat!=1.
.PARAMETER From
A shmnmweb to read from: http://HOST:PORT, https://HOST:PORT or unix:PATH.
.PARAMETER File
A dump to read.
.PARAMETER LockTimeout
Time to wait for the lock, such as 500ms or 5s.
.EXAMPLE
(Get-ShmnmPicture).servers | Where-Object nodestat -ne 1
#>
function Get-ShmnmPicture {
    [CmdletBinding()]
    param(
        [Parameter(Position = 0)] [string[]] $Prefix = @(),
        [string] $Only,
        [string] $From,
        [string] $File,
        [string] $LockTimeout
    )
    $arguments = @('status') + @(Get-SourceArgument $From $LockTimeout)
    if ($Only) { $arguments += '--only', $Only }
    if ($File) { $arguments += '--file', $PSCmdlet.GetUnresolvedProviderPathFromPSPath($File) }
    $result = Invoke-Shmnmctl ($arguments + $Prefix)
    # With -Only a picture without rows is an answer too.
    if ($result.Status -ne 0 -and -not ($result.Status -eq 1 -and $result.Output)) {
        $PSCmdlet.ThrowTerminatingError((New-ShmnmError $result.Failure $result.Status))
    }
    $picture = ConvertFrom-Json $result.Output
    $picture.PSObject.TypeNames.Insert(0, 'Shmnm.Picture')
    return $picture
}

<#
.SYNOPSIS
Waits until a condition holds. Returns $true, or $false if the time is over.
.PARAMETER Condition
Such as 'all servers/*/nodestat=1'.
.PARAMETER Timeout
Such as 500ms, 30s or 5m; without it there is no limit.
.EXAMPLE
if (-not (Wait-ShmnmCondition 'servers/alpha/nodestat=1' -Timeout 30s)) { throw 'alpha is not there' }
#>
function Wait-ShmnmCondition {
    [CmdletBinding()]
    [OutputType([bool])]
    param(
        [Parameter(Mandatory = $true, Position = 0)] [string] $Condition,
        [string] $Timeout,
        [string] $From,
        [string] $LockTimeout
    )
    $arguments = @('wait', $Condition) + @(Get-SourceArgument $From $LockTimeout)
    if ($Timeout) { $arguments += '--timeout', $Timeout }
    $result = Invoke-Shmnmctl $arguments
    if ($result.Status -eq 4) { Write-Verbose $result.Failure.message }
    elseif ($result.Status -ne 0) { $PSCmdlet.ThrowTerminatingError((New-ShmnmError $result.Failure $result.Status)) }
    return $result.Status -eq 0
}

<#
.SYNOPSIS
Writes an object for each change of the picture, as it happens, until it is stopped.
.DESCRIPTION
The objects are the documents "change", "gap" and "region" of docs/shmnmctl.schema.json, told apart by their member kind.
.PARAMETER Prefix
Only keys at or below this one.
.PARAMETER FromStart
Begin with every word as it is.
.PARAMETER Interval
Time from one look to the next, such as 50ms.
.EXAMPLE
Watch-Shmnm servers | Where-Object kind -eq change | ForEach-Object { "$($_.key): $($_.old) -> $($_.new)" }
#>
function Watch-Shmnm {
    [CmdletBinding()]
    param(
        [Parameter(Position = 0)] [string] $Prefix,
        [switch] $FromStart,
        [string] $Interval,
        [string] $From,
        [string] $LockTimeout
    )
    $arguments = @('watch') + @(Get-SourceArgument $From $LockTimeout)
    if ($Prefix) { $arguments += $Prefix }
    if ($FromStart) { $arguments += '--from-start' }
    if ($Interval) { $arguments += '--interval', $Interval }
    $process = Start-Shmnmctl $arguments
    try {
        $complaint = $process.StandardError.ReadToEndAsync()
        for (;;) {
            $line = $process.StandardOutput.ReadLineAsync()
            while (-not $line.Wait(100)) { }
            if ($null -eq $line.Result) { break }
            $change = ConvertFrom-Json $line.Result
            $change.PSObject.TypeNames.Insert(0, 'Shmnm.Event')
            $change
        }
        $process.WaitForExit()
        $failure = Read-Complaint $complaint.Result
        if ($process.ExitCode -ne 0) { $PSCmdlet.ThrowTerminatingError((New-ShmnmError $failure $process.ExitCode)) }
    }
    finally {
        if (-not $process.HasExited) { $process.Kill() }
        $process.Dispose()
    }
}

Export-ModuleMember -Function @('Get-ShmnmPicture', 'Wait-ShmnmCondition', 'Watch-Shmnm')
