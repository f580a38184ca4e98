# Completion of shmnmctl for PowerShell: the command itself says what may follow. Load it in your profile:
#     . 'C:\Program Files\shmnm\share\shmnm\shmnmctl.ps1'

Register-ArgumentCompleter -Native -CommandName @('shmnmctl', 'shmnmctl.exe') -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    $before = @($commandAst.CommandElements | Where-Object { $_.Extent.EndOffset -lt $cursorPosition })
    $words = @($before | ForEach-Object { $_.Extent.Text -replace '[''"]', '' })
    $last = $wordToComplete -replace '[''"]', ''
    $arguments = @($words | Select-Object -Skip 1)
    foreach ($line in & $words[0] __complete @arguments "=$last" 2>$null) {
        $choice, $help = $line -split "`t", 2
        # Files and commands: PowerShell completes files by itself when nothing is offered.
        if (-not $choice) { return }
        $text = if ($choice -match '[^\w/.:@+,%=-]') { "'$choice'" } else { $choice }
        if (-not $help) { $help = $choice }
        [System.Management.Automation.CompletionResult]::new($text, $choice, 'ParameterValue', $help)
    }
}
