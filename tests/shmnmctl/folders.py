"""Installations in folders whose paths have blanks, letters of any script and any length."""
import shutil
import subprocess

import support
from support import ToolTest, path

# The installation path may have up to 1023 bytes; a system without the wide calls' prefix takes 260 characters.
LONG = "/".join(letter * 100 for letter in "lmn")
FOLDERS = ("with blanks", "über", "Программы и данные", "集群 \U0001F5A5", LONG)


class InstallationTest(ToolTest):
    def install(self, name):
        """Another installation for the tools that this test starts."""
        folder = self.folder / name
        shutil.copytree(self.folder / "etc", folder / "etc")
        self.environment = dict(self.environment, KZM_INSTALL_PATH=path(folder), KZMUTIL_NAMESPACE=f"{self.environment['KZMUTIL_NAMESPACE']}{len(name)}-")
        return folder

    def copy_programs(self, folder, *names):
        """Puts programs and the DLLs into an installation, which they then find by themselves."""
        (folder / "bin").mkdir()
        for file in [*support.FOLDER.glob("kzm*.dll"), *(support.FOLDER / f"{name}.exe" for name in names)]:
            shutil.copy2(file, folder / "bin" / file.name)
        self.environment.pop("KZM_INSTALL_PATH", None)
        return [support.program(name)[:-1] + [str(folder / f"bin/{name}.exe")] for name in names]

    def serving(self, command):
        process = subprocess.Popen(command + ["serve", "--until-eof"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.environment)
        self.addCleanup(process.communicate)
        ready = process.stdout.readline()
        self.assertTrue(ready.startswith(b"ready: "), ready or process.stderr.read())
        return process
