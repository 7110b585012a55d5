package vex.jni;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;

/** The openssl command, run in a directory. */
public final class OpenSslCommand {
    private final Path directory;

    public OpenSslCommand(Path directory) {
        this.directory = directory;
    }

    public Path write(String name, byte[] content) throws Exception {
        return Files.write(directory.resolve(name), content);
    }

    public Path writeCertificate(X509Certificate certificate) throws Exception {
        return writePem("cert.pem", "CERTIFICATE", certificate.getEncoded());
    }

    public Path writePem(String name, String label, byte[] der) throws Exception {
        return write(name, TestStore.pem(label, der).getBytes(StandardCharsets.US_ASCII));
    }

    /** Fails the test with what openssl printed unless its exit status is 0. */
    public void run(String... arguments) throws Exception {
        start(arguments).succeeded();
    }

    /** Returns whether the exit status is 0. */
    public boolean accepts(String... arguments) throws Exception {
        return start(arguments).status() == 0;
    }

    private Run start(String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of("openssl"));
        command.addAll(List.of(arguments));
        return Run.of(new ProcessBuilder(command).directory(directory.toFile()).redirectErrorStream(true));
    }
}
