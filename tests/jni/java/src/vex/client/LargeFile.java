package vex.client;

import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;

/** Signs a file detached, and prints by how many KiB the process grew at most since it started. */
final class LargeFile {
    private LargeFile() {}

    /** @param args the store's PEM file, the file to sign, the signature's file, and "file" or "stream" */
    public static void main(String[] args) throws Exception {
        long before = peakKib();
        try (SigningClient client = SigningClient.file(Path.of(args[0])).open();
             InputStream stream = Files.newInputStream(Path.of(args[1]))) {
            byte[] cms = args[3].equals("file")
                ? client.signCmsDetached(Path.of(args[1]), CmsOption.OMIT_CERTIFICATE)
                : client.signCmsDetached(stream, CmsOption.OMIT_CERTIFICATE);
            Files.write(Path.of(args[2]), cms);
        }
        System.out.println(peakKib() - before);
    }

    private static long peakKib() throws Exception {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith("VmHWM:")) {
                return Long.parseLong(line.replaceAll("\\D", ""));
            }
        }
        throw new IllegalStateException("/proc/self/status has no VmHWM");
    }
}
