@{
    RootModule        = 'Shmnm.psm1'
    ModuleVersion     = '1.0.0'
    GUID              = '6d0f8a52-8b1e-4c47-9f5a-3f1f6a9b7c21'
    Description       = 'The live picture of the cluster on this machine, as objects, through shmnmctl.'
    PowerShellVersion = '5.1'
    FunctionsToExport = @('Get-ShmnmPicture', 'Wait-ShmnmCondition', 'Watch-Shmnm')
    CmdletsToExport   = @()
    VariablesToExport = @()
    AliasesToExport   = @()
}
