package vex.demo;

import java.io.File;
import java.io.IOException;
import java.nio.charset.Charset;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.stream.Collectors;

/** The openssl command: a judge of the signatures that has nothing to do with their maker. */
class OpenSsl {
    private final Path program;

    private OpenSsl(Path program) {
        this.program = program;
    }

    /** The first openssl on the PATH. */
    static Optional<OpenSsl> find() {
        String path = System.getenv().getOrDefault("PATH", "");
        for (String directory : path.split(File.pathSeparator)) {
            Path program = Path.of(directory, "openssl");
            if (Files.isRegularFile(program) && Files.isExecutable(program)) {
                return Optional.of(new OpenSsl(program));
            }
        }
        return Optional.empty();
    }

    /**
     * The arguments that verify a P7 signature. The certificate itself is what is trusted, whoever issued it.
     *
     * @param signature CMS in DER
     * @param content what was signed, null when the signature contains it
     * @param certificate PEM
     * @param withCertificate whether the signature contains the certificate
     * @param forMail whether the certificate may sign mail, which openssl expects unless told otherwise
     * @param recovered where openssl writes the content that it has verified
     */
    static List<String> verifyCommand(Path signature, Path content, Path certificate, boolean withCertificate,
                                      boolean forMail, Path recovered) {
        List<String> command = new ArrayList<>(List.of("openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
            signature.toString()));
        if (content != null) {
            command.addAll(List.of("-content", content.toString()));
        }
        if (!withCertificate) {
            command.addAll(List.of("-certfile", certificate.toString()));
        }
        command.addAll(List.of("-CAfile", certificate.toString(), "-partial_chain"));
        if (!forMail) {
            command.addAll(List.of("-purpose", "any"));
        }
        command.addAll(List.of("-out", recovered.toString()));
        return command;
    }

    /** As it can be pasted into a shell. */
    static String quote(List<String> command) {
        return command.stream()
            .map(word -> word.matches("[A-Za-z0-9_./:=@%+-]+") ? word : "'" + word.replace("'", "'\\''") + "'")
            .collect(Collectors.joining(" "));
    }

    /** Runs a command that begins with "openssl"; fails with what it printed unless it succeeds. */
    void run(List<String> command) throws DemoException {
        List<String> withPath = new ArrayList<>(command);
        withPath.set(0, program.toString());
        try {
            Process process = new ProcessBuilder(withPath).redirectErrorStream(true).start();
            process.getOutputStream().close();
            String output = new String(process.getInputStream().readAllBytes(), Charset.defaultCharset());
            int status = process.waitFor();
            if (status != 0) {
                throw new DemoException("openssl refuses the signature (status " + status + "): " + output.strip());
            }
        } catch (IOException e) {
            throw new DemoException("openssl cannot be run: " + e.getMessage());
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new DemoException("Interrupted while openssl was running.");
        }
    }
}
