package vex.jni;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.util.Base64;
import java.util.List;
import java.util.stream.Collectors;

/** GnuTLS, in a process that verifies one signature after the other: tests/support/GnuTlsVerifier.cpp. */
final class GnuTlsVerifier implements Verifier, AutoCloseable {
    private final Process process;
    private final OutputStream questions;
    private final BufferedReader answers;

    GnuTlsVerifier(String program) throws IOException {
        process = new ProcessBuilder(program).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        questions = process.getOutputStream();
        answers = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
    }

    @Override
    public String name() {
        return "GnuTLS";
    }

    @Override
    public void close() throws IOException {
        questions.close();
        int status = process.onExit().join().exitValue();
        if (status != 0) {
            throw new AssertionError("the GnuTLS verifier ended with " + status);
        }
    }

    private static String base64(byte[] bytes) {
        return Base64.getEncoder().encodeToString(bytes);
    }

    private static String base64(List<X509Certificate> certificates) {
        return certificates.stream().map(certificate -> {
            try {
                return base64(certificate.getEncoded());
            } catch (CertificateEncodingException e) {
                throw new AssertionError(e);
            }
        }).collect(Collectors.joining(","));
    }

    /** One line there, one line back. */
    private Answer ask(String... words) throws IOException {
        questions.write((String.join(" ", words) + "\n").getBytes(StandardCharsets.US_ASCII));
        questions.flush();
        String line = answers.readLine();
        if (line == null) {
            throw new AssertionError("the GnuTLS verifier ended after " + words[0]);
        }
        String rest = line.substring(line.indexOf(' ') + 1);
        return line.startsWith("accepts ") ? Answer.accepts(Base64.getDecoder().decode(rest)) : Answer.refuses(rest);
    }

    /** GnuTLS's name of the algorithm, as certtool --list and gnutls-cli --list print it. */
    private static String algorithm(Scheme scheme) {
        if (scheme.isEdwards()) {
            return "EdDSA-" + scheme.key();
        }
        String digest = scheme.digest().name().replaceFirst("^SHA-", "SHA");
        return scheme.pss() ? "RSA-PSS-" + digest : (scheme.isRsa() ? "RSA-" : "ECDSA-") + digest;
    }

    @Override
    public Answer onPath(Knowledge knowledge) throws Exception {
        return ask("path", base64(List.of(knowledge.root())), base64(knowledge.given()));
    }

    @Override
    public Answer onP1(byte[] signature, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception {
        return ask("p1", algorithm(scheme), base64(knowledge.given().subList(0, 1)), base64(signature),
            base64(content));
    }

    @Override
    public Answer onP7(byte[] der, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception {
        return ask("p7", base64(List.of(knowledge.root())), "given:" + base64(knowledge.given()), base64(der),
            content == null ? "attached" : "detached:" + base64(content));
    }
}
