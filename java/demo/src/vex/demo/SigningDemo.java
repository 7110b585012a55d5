package vex.demo;

import java.io.IOException;
import java.nio.charset.Charset;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.Signature;
import java.util.Base64;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import vex.client.CertificateInfo;
import vex.client.CmsOption;
import vex.client.SigningClient;
import vex.client.SigningException;
import vex.client.SigningRequest;
import vex.client.SigningResult;

/** Signs a text in every form, writes the signatures to files, and verifies the P1 signature with the JDK. */
public final class SigningDemo {
    private static final int EXIT_FAILED = 1;
    private static final int EXIT_USAGE = 2;

    private static final String USAGE = String.join(System.lineSeparator(),
        "Usage: java -jar tavclientjni-demo.jar [option...] text",
        "",
        "Signs the text in every form, writes the signatures to files, and verifies the P1 signature with the JDK.",
        "",
        "  --store URI           the certificate store (default: demo:), for example",
        "                        file:/home/me/keys.p12?pin-source=file:/home/me/pin",
        "  --key-algorithm NAME  sign with a key of this algorithm, RSA or EC (default: any)",
        "  --out DIR             write the files to this directory (default: signing-demo); files there are replaced",
        "  --help                print this text",
        "  --                    end of the options, for a text that begins with --",
        "",
        "Exit status: 0 when the text was signed and verified, 1 on failure, 2 when the command line is wrong.");

    private final SigningClient client;
    private final Path out;

    private SigningDemo(SigningClient client, Path out) {
        this.client = client;
        this.out = out;
    }

    /**
     * Runs the demo and ends the JVM with its exit status.
     *
     * @param args see --help
     */
    public static void main(String[] args) {
        System.exit(run(args));
    }

    private static int run(String[] args) {
        Map<String, String> options =
            new HashMap<>(Map.of("--store", "demo:", "--key-algorithm", "", "--out", "signing-demo"));
        int next = 0;
        while (next < args.length && args[next].startsWith("--")) {
            String option = args[next++];
            if (option.equals("--")) {
                break;
            }
            if (option.equals("--help")) {
                System.out.println(USAGE);
                return 0;
            }
            if (!options.containsKey(option)) {
                return fail(EXIT_USAGE, "Unknown option " + option + ".");
            }
            if (next == args.length) {
                return fail(EXIT_USAGE, "A value is missing after " + option + ".");
            }
            options.put(option, args[next++]);
        }
        if (args.length - next != 1) {
            return fail(EXIT_USAGE, "Give one text to sign; put quotation marks around it.");
        }
        return run(options, args[next]);
    }

    private static int run(Map<String, String> options, String text) {
        SigningClient.Builder builder = SigningClient.store(options.get("--store"));
        if (!options.get("--key-algorithm").isEmpty()) {
            builder.keyAlgorithm(options.get("--key-algorithm"));
        }
        try (SigningClient client = builder.open()) {
            Path out = Files.createDirectories(Path.of(options.get("--out")));
            new SigningDemo(client, out).run(text);
            return 0;
        } catch (SigningException e) {
            return fail(EXIT_FAILED, e.getMessage() + " (toolkit error " + e.number() + ").");
        } catch (IOException | InvalidPathException e) {
            return fail(EXIT_FAILED, "Cannot write the signatures to " + options.get("--out") + ": " + e);
        } catch (GeneralSecurityException e) {
            return fail(EXIT_FAILED, "The JDK cannot verify the P1 signature: " + e);
        } catch (UnsatisfiedLinkError e) {
            return fail(EXIT_FAILED, e.getMessage());
        }
    }

    private static int fail(int status, String message) {
        System.err.println(message);
        if (status == EXIT_USAGE) {
            System.err.println(USAGE);
        }
        return status;
    }

    private void run(String text) throws GeneralSecurityException, IOException {
        List<CertificateInfo> certificates = client.certificates();
        System.out.println("Certificates that can sign: " + certificates.size());
        certificates.forEach(certificate -> System.out.println("  " + certificate));

        // The toolkit signs a text in the encoding of the process locale. Java 17 and newer keep its name here.
        byte[] content = text.getBytes(Charset.forName(System.getProperty("native.encoding")));
        SigningResult p1 = client.sign(SigningRequest.raw(text));
        System.out.println("Signed " + content.length + " bytes:");
        write("content.bin", content, "the signed bytes");
        write("p1.sig", p1.signature(), "P1");
        write("p7-detached-cert.der", client.signCmsDetached(text), "P7, detached with certificate");
        write("p7-detached.der", client.signCmsDetached(text, CmsOption.OMIT_CERTIFICATE),
            "P7, detached without certificate");
        write("p7-attached-cert.der", client.signCmsAttached(text), "P7, attached with certificate");
        write("p7-attached.der", client.signCmsAttached(text, CmsOption.OMIT_CERTIFICATE),
            "P7, attached without certificate");

        String pem = "-----BEGIN CERTIFICATE-----\n"
            + Base64.getMimeEncoder(64, new byte[] {'\n'}).encodeToString(p1.certificate().getEncoded())
            + "\n-----END CERTIFICATE-----\n";
        write("cert.pem", pem.getBytes(StandardCharsets.US_ASCII), "the certificate of the signer");
        verify(p1, content);
    }

    private void write(String name, byte[] content, String what) throws IOException {
        System.out.println("  " + Files.write(out.resolve(name), content) + " (" + what + ")");
    }

    private static void verify(SigningResult p1, byte[] content) throws GeneralSecurityException {
        Signature verifier = Signature.getInstance(p1.algorithm());
        if (p1.algorithmParameters().isPresent()) {
            verifier.setParameter(p1.algorithmParameters().get());
        }
        verifier.initVerify(p1.certificate());
        verifier.update(content);
        if (!verifier.verify(p1.signature())) {
            throw new GeneralSecurityException("the signature does not match the text and the certificate");
        }
        System.out.println("P1: good (the JDK's " + p1.algorithm() + ")");
    }
}
